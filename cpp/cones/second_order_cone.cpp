#include "cones/second_order_cone.hpp"

#include <cmath>
#include <cstring>

#include "cones/dense.hpp"
#include "cones/device_call.hpp"
#include "cones/parallel.hpp"
#include "cones/second_order_nt.hpp"
#include "cones/math/second_order.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

// |x[1..dim-1]|; the sum runs over all dim items (element 0 adds 0) so the
// team decision and the block split are made on dim.
double tail_norm(const double* x, uint64_t dim) {
    return std::sqrt(parallel_sum(dim, kParallelThreshold,
                                  [x](uint64_t i) { return i == 0 ? 0.0 : x[i] * x[i]; }));
}

// Projection onto the cone; `out` may be `x`: element 0 is read before any
// write, and every other element is read just before it is written.
void project_host(const double* x, double* out, uint64_t dim) {
    const SocProjection rule = soc_projection(x[0], tail_norm(x, dim));
    switch (rule.kind) {
        case SocProjectionCase::Inside:
            std::memmove(out, x, dim * sizeof(double));
            return;
        case SocProjectionCase::Polar:
            std::fill(out, out + dim, 0.0);
            return;
        case SocProjectionCase::Between:
            parallel_blocks(dim, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
                for (uint64_t i = begin; i < end; ++i) out[i] = soc_projected_entry(rule, i, x[i]);
            });
            return;
    }
}

using DeviceBatchFn = void (*)(const double*, const double*, double*, size_t, size_t, int,
                               cudaStream_t);

DeviceBatchFn device_batch_fn(bool custom, bool cublas) {
    if (custom) return dravik_soc_nt_scaling_batch_custom_cuda;
    if (cublas) return dravik_soc_nt_scaling_batch_cublas_cuda;
    return dravik_soc_nt_scaling_batch_cuda;
}

}  // namespace

SecondOrderConeCpp::SecondOrderConeCpp(uint64_t dim) : dim_(dim) {
    if (dim == 0) fail("second-order cone dim must be positive");
}

void SecondOrderConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                                      uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, dim_);
    const VectorView &in = io.in, &out = io.out;
    if (is_cuda(in)) {
        require_cuda_runtime();
        dravik_soc_project_cuda(in.data, out.data, dim_, in.device_id, as_stream(stream));
        return;
    }
    project_host(in.data, out.data, dim_);
}

double SecondOrderConeCpp::violation(const ArrayRef& input) const {
    VectorView in = checked_vector_view(input, dim_, "input");
    if (is_cuda(in)) {
        require_cuda_runtime();
        return dravik_soc_violation_cuda(in.data, dim_, in.device_id);
    }
    const double* x = in.data;
    std::vector<double> p(dim_, 0.0);
    project_host(x, p.data(), dim_);
    const double* q = p.data();
    return std::sqrt(parallel_sum(dim_, kParallelThreshold, [x, q](uint64_t i) {
        const double r = x[i] - q[i];
        return r * r;
    }));
}

bool SecondOrderConeCpp::contains(const ArrayRef& input, double atol) const {
    VectorView in = checked_vector_view(input, dim_, "input");
    if (is_cuda(in)) {
        require_cuda_runtime();
        return dravik_soc_contains_cuda(in.data, dim_, in.device_id, atol);
    }
    return in.data[0] >= tail_norm(in.data, dim_) - atol;
}

std::vector<double> SecondOrderConeCpp::nt_scaling_matrix(const ArrayRef& s,
                                                          const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    return soc_nt_scaling_dense(sv.data, zv.data, dim_);
}

OwnedArray SecondOrderConeCpp::nt_scaling_matrix_array(const ArrayRef& s,
                                                       const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    return dense_matrix_array(soc_nt_scaling_dense(sv.data, zv.data, dim_), dim_,
                              "SOC NT scaling");
}

void SecondOrderConeCpp::nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z,
                                                      const ArrayRef& output, uint64_t batch,
                                                      uint64_t stream) const {
    scale_batch(s, z, output, batch, stream, BatchMethod::Default);
}

const char* SecondOrderConeCpp::nt_scaling_matrix_default_method(uint64_t batch) const {
    return dravik_soc_nt_scaling_default_method_cuda(dim_, batch);
}

void SecondOrderConeCpp::nt_scaling_matrix_batch_custom_into(const ArrayRef& s,
                                                             const ArrayRef& z,
                                                             const ArrayRef& output,
                                                             uint64_t batch,
                                                             uint64_t stream) const {
    scale_batch(s, z, output, batch, stream, BatchMethod::Custom);
}

void SecondOrderConeCpp::nt_scaling_matrix_batch_cublas_into(const ArrayRef& s,
                                                             const ArrayRef& z,
                                                             const ArrayRef& output,
                                                             uint64_t batch,
                                                             uint64_t stream) const {
    scale_batch(s, z, output, batch, stream, BatchMethod::Cublas);
}

// The four _into forms: views and same-device checks, then the device entry
// point of the method, or the host loop (items in order; a failing item
// leaves the earlier ones written and itself and the later ones untouched).
void SecondOrderConeCpp::scale_batch(const ArrayRef& s, const ArrayRef& z,
                                     const ArrayRef& output, uint64_t batch, uint64_t stream,
                                     BatchMethod method) const {
    const uint64_t n = dim_;
    const NtBatchViews v = nt_batch_views(s, z, output, n, batch);
    const VectorView &sv = v.s, &zv = v.z, &out = v.out;
    if (is_cuda(out)) {
        require_cuda_runtime();
        DeviceBatchFn device =
            device_batch_fn(method == BatchMethod::Custom, method == BatchMethod::Cublas);
        device(sv.data, zv.data, out.data, n, batch, out.device_id, as_stream(stream));
        return;
    }
    if (method == BatchMethod::Cublas) fail("SOC cuBLAS NT scaling requires CUDA arrays");
    if (batch == 0) return;
    SocNtScaling scaling(n);
    for (uint64_t b = 0; b < batch; ++b) {
        scaling.write(sv.data + b * n, zv.data + b * n, out.data + b * n * n);
    }
}

}  // namespace dravik::mirel::cones::cpp
