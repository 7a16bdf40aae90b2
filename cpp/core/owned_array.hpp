// Result arrays the system allocates and hands to Python: one zero-filled
// host block (calloc) with a shape of one or two extents. The binding layer
// wraps the block in a capsule that frees it, and a NumPy array viewing it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace dravik::mirel::cones::cpp {

struct FreeBlock {
    void operator()(double* p) const noexcept { std::free(p); }
};

struct OwnedArray {
    std::unique_ptr<double, FreeBlock> block;
    uint64_t count = 0;
    size_t ndim = 1;
    size_t shape[2] = {0, 0};

    double* data() const { return block.get(); }
};

// count zeroed float64 values with shape (shape0,) or (shape0, shape1);
// fails with what + " allocation failed" when the block cannot be had.
OwnedArray make_owned_array(uint64_t count, size_t ndim, const size_t* shape, const char* what);

inline OwnedArray make_owned_vector(uint64_t n, const char* what) {
    size_t shape[1] = {static_cast<size_t>(n)};
    return make_owned_array(n, 1, shape, what);
}

// An n x n matrix; fails with the allocation message when n * n overflows.
OwnedArray make_owned_matrix(uint64_t n, const char* what);

}  // namespace dravik::mirel::cones::cpp
