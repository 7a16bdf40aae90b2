// The one reduction the solver kit needs on the device: the least step of
// a batch, brought back to the host on the caller's stream.
#include "cuda/kit_kernels.cuh"
#include "cuda/reductions.cuh"

namespace dravik::cuda {

__global__ void kit_least_step_kernel(const double* alpha, size_t count, double* result) {
    __shared__ double buffer[kThreads];
    double least = INFINITY;
    for (size_t k = threadIdx.x; k < count; k += blockDim.x) {
        least = kit_math::least_of(least, alpha[k]);
    }
    least = block_reduce(least, buffer, LeastOp{});
    if (threadIdx.x == 0) *result = least;
}

double least_step(const double* alpha, size_t items, cudaStream_t stream) {
    StreamScratch<double> result(1, stream);
    DRAVIK_LAUNCH(kit_least_step_kernel, 1, kThreads, 0, stream, alpha, items, result.get());
    double value = INFINITY;
    copy_async(&value, result.get(), sizeof(double), cudaMemcpyDeviceToHost, stream);
    result.release();
    synchronize_stream(stream);
    return value;
}

}  // namespace dravik::cuda
