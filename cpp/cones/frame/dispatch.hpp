// The one decision every operation makes once its views are checked: CUDA
// arrays go to the exported device interface (after confirming that the
// runtime has a usable device), host arrays to the host algorithm.
#pragma once

#include <cstdint>
#include <utility>

#include "core/views.hpp"
#include "cuda/dravik_cuda.h"

namespace dravik::mirel::cones::cpp {

// CUDA arrays need a usable device; asked of the runtime on every device call.
inline void require_cuda_runtime() {
    if (!dravik_cuda_available()) fail("CUDA runtime is required for CUDA cone arrays");
}

// The Python caller passes a stream as the integer value of its handle.
inline cudaStream_t as_stream(uint64_t handle) {
    return reinterpret_cast<cudaStream_t>(static_cast<uintptr_t>(handle));
}

// Runs on_device(device ordinal) when `placement` is a CUDA view, else
// on_host(). The view that decides is, by operation kind: the input for
// projection, violation and membership; the output for NT scaling batches
// and the packing functions; `s` for the sparse Hessian fills. The
// same-device checks have run by then, so the choice only fixes whose
// ordinal the device call receives.
template <class View, class OnDevice, class OnHost>
decltype(auto) run_on(const View& placement, OnDevice&& on_device, OnHost&& on_host) {
    if (is_cuda(placement)) {
        require_cuda_runtime();
        return std::forward<OnDevice>(on_device)(placement.device_id);
    }
    return std::forward<OnHost>(on_host)();
}

}  // namespace dravik::mirel::cones::cpp
