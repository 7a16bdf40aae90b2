#include "core/owned_array.hpp"

#include <string>

#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

OwnedArray make_owned_array(uint64_t count, size_t ndim, const size_t* shape, const char* what) {
    // calloc(0, ...) may legitimately return null; ask for one element so an
    // empty result still has a block to own and null always means failure.
    void* raw = std::calloc(count == 0 ? 1 : count, sizeof(double));
    if (raw == nullptr) fail(std::string(what) + " allocation failed");
    OwnedArray out;
    out.block.reset(static_cast<double*>(raw));
    out.count = count;
    out.ndim = ndim;
    for (size_t k = 0; k < ndim; ++k) out.shape[k] = shape[k];
    return out;
}

OwnedArray make_owned_matrix(uint64_t n, const char* what) {
    if (n != 0 && n > UINT64_MAX / n) fail(std::string(what) + " allocation failed");
    size_t shape[2] = {static_cast<size_t>(n), static_cast<size_t>(n)};
    return make_owned_array(n * n, 2, shape, what);
}

}  // namespace dravik::mirel::cones::cpp
