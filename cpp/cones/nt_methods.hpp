// The NT scaling method family shared by the cones whose device batch can run
// by more than one method (second-order and PSD): the batch form picks the
// method by the device rule, the custom and cuBLAS forms force one, and the
// method query answers that rule's name without a device.
#pragma once

#include <cstdint>

#include "bindings/views.hpp"
#include "cones/dispatch.hpp"

namespace dravik::mirel::cones::cpp {

enum class NtMethod : int { Default = 0, Custom = 1, Cublas = 2 };

using NtBatchDeviceFn = void (*)(const double* s, const double* z, double* out, size_t dim,
                                 size_t batch, int device, cudaStream_t stream);

// One cone kind's device rule (the method name the batch form picks for a
// dim and batch, answered without a device), its device entry points indexed
// by NtMethod, and the message for a cuBLAS batch forced on host arrays.
struct NtMethodFamily {
    const char* (*default_method)(size_t dim, size_t batch);
    NtBatchDeviceFn device[3];
    const char* cublas_needs_cuda;
};

// After the views: CUDA output -> runtime check, before_device(method) (a
// cone's own device-side refusal, e.g. a size limit), then the method's
// entry point with `dim` (the cone's own size parameter, not necessarily its
// rows); host output -> the refusal of a forced cuBLAS batch, else
// host_batch().
template <class BeforeDevice, class HostBatch>
void run_nt_batch(const NtBatchViews& v, uint64_t dim, uint64_t batch, uint64_t stream,
                  NtMethod method, const NtMethodFamily& family, BeforeDevice before_device,
                  HostBatch host_batch) {
    run_on(
        v.out,
        [&](int device) {
            before_device(method);
            family.device[static_cast<int>(method)](v.s.data, v.z.data, v.out.data, dim, batch,
                                                    device, as_stream(stream));
        },
        [&] {
            if (method == NtMethod::Cublas) fail(family.cublas_needs_cuda);
            host_batch();
        });
}

}  // namespace dravik::mirel::cones::cpp
