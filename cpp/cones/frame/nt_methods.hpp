// The NT scaling method family shared by the cones whose device batch can run
// by more than one method (second-order and PSD): the batch form picks the
// method by the device rule, the custom and cuBLAS forms force one, and the
// method query answers that rule's name without a device.
#pragma once

#include <cstdint>

#include "cones/frame/dispatch.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

enum class NtMethod : int { Default = 0, Custom = 1, Cublas = 2 };

// `size` is what a cone kind's device entry points take: the rows of a
// second-order cone, the matrix order of a PSD cone.
using NtBatchDeviceFn = void (*)(const double* s, const double* z, double* out, size_t size,
                                 size_t batch, int device, cudaStream_t stream);

// One cone kind's device rule (the method name the batch form picks for a
// size and batch, answered without a device), its device entry points
// indexed by NtMethod, and the message for a cuBLAS batch forced on host
// arrays.
struct NtMethodFamily {
    const char* (*default_method)(size_t size, size_t batch);
    NtBatchDeviceFn device[3];
    const char* cublas_needs_cuda;
};

// After the views: CUDA output -> runtime check, before_device(method) (a
// cone's own device-side refusal, e.g. a size limit), then the method's
// entry point with `size` (the cone's device_size(), not necessarily its
// rows); host output -> the refusal of a forced cuBLAS batch, else
// host_batch().
template <class BeforeDevice, class HostBatch>
void run_nt_batch(const NtBatchViews& v, uint64_t size, uint64_t batch, uint64_t stream,
                  NtMethod method, const NtMethodFamily& family, BeforeDevice before_device,
                  HostBatch host_batch) {
    run_on(
        v.out,
        [&](int device) {
            before_device(method);
            family.device[static_cast<int>(method)](v.s.data, v.z.data, v.out.data, size, batch,
                                                    device, as_stream(stream));
        },
        [&] {
            if (method == NtMethod::Cublas) fail(family.cublas_needs_cuda);
            host_batch();
        });
}

// The four batch forms of a cone with an NT method family, written once:
// Cone provides device_size(), a static nt_methods() (its family) and
// scale_batch(s, z, output, batch, stream, method), which builds the views
// and calls run_nt_batch.
template <class Cone>
class NtMethodForms {
public:
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const {
        self().scale_batch(s, z, output, batch, stream, NtMethod::Default);
    }
    // The device method the batch form picks for this cone and batch size.
    const char* nt_scaling_matrix_default_method(uint64_t batch) const {
        return Cone::nt_methods().default_method(self().device_size(), batch);
    }
    void nt_scaling_matrix_batch_custom_into(const ArrayRef& s, const ArrayRef& z,
                                             const ArrayRef& output, uint64_t batch,
                                             uint64_t stream) const {
        self().scale_batch(s, z, output, batch, stream, NtMethod::Custom);
    }
    void nt_scaling_matrix_batch_cublas_into(const ArrayRef& s, const ArrayRef& z,
                                             const ArrayRef& output, uint64_t batch,
                                             uint64_t stream) const {
        self().scale_batch(s, z, output, batch, stream, NtMethod::Cublas);
    }

private:
    const Cone& self() const { return static_cast<const Cone&>(*this); }
};

}  // namespace dravik::mirel::cones::cpp
