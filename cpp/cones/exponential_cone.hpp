// A product of `blocks` three-dimensional exponential cones; block k of a
// vector is (x, y, z) = entries 3k, 3k + 1, 3k + 2.
#pragma once

#include <cstdint>

#include "cones/frame/dense_scaling.hpp"
#include "cones/frame/kit_forms.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"
#include "math/exponential_kit.hpp"

namespace dravik::mirel::cones::cpp {

class ExponentialConeCpp : public DenseScalingForms<ExponentialConeCpp>,
                           public KitForms<ExponentialConeCpp> {
public:
    explicit ExponentialConeCpp(uint64_t blocks);

    uint64_t dim() const { return 3; }  // the Python-visible size: the rows of one block
    uint64_t rows() const { return 3 * blocks_; }
    uint64_t blocks() const { return blocks_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // The dual cone: Euclidean projection, violation measure and membership,
    // with the argument checks and threading of the three above.
    void project_dual_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation_dual(const ArrayRef& input) const;
    bool contains_dual(const ArrayRef& input, double atol) const;

    // Block-diagonal scaling: block k maps the s-block onto the z-block. The
    // list and array forms come from DenseScalingForms.
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

    // The solver kit (KitForms): barrier degree 3 per block; the entrywise
    // operations run over runs of 3-blocks, H and the fills see whole items.
    // The primal-dual scaling takes mu.
    static constexpr bool kEntrywise = true;
    static constexpr uint64_t kUnitRows = 3;
    uint64_t degree() const { return 3 * blocks_; }
    ExponentialKit kit() const { return {blocks_}; }
    static ExponentialKit kit_of(uint64_t blocks) { return {blocks}; }
    uint64_t kit_size() const { return blocks_; }
    static const char* kit_label() { return "exponential"; }
    static const KitDeviceFns& kit_device();

    // The barrier's gradient grad f(x) and the conjugate barrier's
    // grad f*(z) (minus the interior point p with -grad f(p) = z), and the
    // step length in the dual cone.
    void barrier_gradient_into(const ArrayRef& x, const ArrayRef& output, uint64_t batch,
                               uint64_t stream) const;
    void barrier_gradient_dual_into(const ArrayRef& z, const ArrayRef& output, uint64_t batch,
                                    uint64_t stream) const;
    double max_step_dual(const ArrayRef& x, const ArrayRef& dx, uint64_t batch,
                         uint64_t stream) const;

private:
    void gradient_into(const ArrayRef& point, const ArrayRef& output, uint64_t batch,
                       uint64_t stream, bool dual) const;
    friend class DenseScalingForms<ExponentialConeCpp>;
    OwnedArray dense_scaling(const double* s, const double* z) const;

    uint64_t blocks_;
};

}  // namespace dravik::mirel::cones::cpp
