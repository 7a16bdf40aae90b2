// The module's svec/smat conversions between dense row-major order x order
// matrices and svec vectors: into caller arrays (host or CUDA) or into new
// host arrays.
#pragma once

#include <cstdint>

#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

void psd_svec_into(const ArrayRef& matrix, const ArrayRef& output, uint64_t order, uint64_t stream);
void psd_smat_into(const ArrayRef& svec, const ArrayRef& output, uint64_t order, uint64_t stream);

// Host only: a new array of shape (order (order + 1) / 2,).
OwnedArray psd_svec_array(const ArrayRef& matrix, uint64_t order);
// Host only: a new array of shape (order, order).
OwnedArray psd_smat_array(const ArrayRef& svec, uint64_t order);

}  // namespace dravik::mirel::cones::cpp
