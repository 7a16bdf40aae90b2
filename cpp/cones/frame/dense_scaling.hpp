// The two dense NT scaling forms every cone has, written once: the list form
// (rows * rows values, row-major) and the array form (a new rows x rows
// array) both view s and z as dense host inputs and take the cone's one
// computation of H.
#pragma once

#include <cstdint>
#include <vector>

#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

// Cone provides rows() and dense_scaling(s, z): given the data of s and z
// (rows entries each, already viewed), it runs the cone's input tests and
// returns H (H s = z) as a new rows x rows array, allocated under the
// label of the cone's array form. Both forms run the same checks in the
// same order and give the same bits; the list form copies the array.
template <class Cone>
class DenseScalingForms {
public:
    std::vector<double> nt_scaling_matrix(const ArrayRef& s, const ArrayRef& z) const {
        const OwnedArray h = scaling(s, z);
        return std::vector<double>(h.data(), h.data() + h.count);
    }
    OwnedArray nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const {
        return scaling(s, z);
    }

private:
    OwnedArray scaling(const ArrayRef& s, const ArrayRef& z) const {
        const DensePair p = dense_pair_views(s, z, self().rows());
        return self().dense_scaling(p.s.data, p.z.data);
    }
    const Cone& self() const { return static_cast<const Cone&>(*this); }
};

}  // namespace dravik::mirel::cones::cpp
