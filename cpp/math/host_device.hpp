// Marks functions compiled for both the host and the device. Per-element cone
// formulas that host loops and CUDA kernels share are written once in headers
// that use this macro, so host tests exercise the formulas the kernels run.
#pragma once

#if defined(__CUDACC__)
#define DRAVIK_HD __host__ __device__
#else
#define DRAVIK_HD
#endif
