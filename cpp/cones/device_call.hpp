// What the host dispatch needs to call the exported device interface.
#pragma once

#include <cstdint>

#include "cuda/dravik_cuda.h"

namespace dravik::mirel::cones::cpp {

// The Python caller passes a stream as the integer value of its handle.
inline cudaStream_t as_stream(uint64_t handle) {
    return reinterpret_cast<cudaStream_t>(static_cast<uintptr_t>(handle));
}

}  // namespace dravik::mirel::cones::cpp
