// The cone of symmetric positive semidefinite order x order matrices, its
// vectors held in svec form (rows = order (order + 1) / 2 entries). Host
// arrays go through the Jacobi eigen-decomposition on the calling thread. On
// CUDA arrays, projection, violation and membership exist for order 2
// (closed-form 2 x 2 device functions), NT scaling batches for every order
// up to 128.
#pragma once

#include <cstdint>

#include "cones/frame/dense_scaling.hpp"
#include "cones/frame/nt_methods.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

class PsdConeCpp : public DenseScalingForms<PsdConeCpp>, public NtMethodForms<PsdConeCpp> {
public:
    explicit PsdConeCpp(uint64_t order);

    uint64_t dim() const { return order_; }  // the Python-visible size: the order
    uint64_t order() const { return order_; }
    uint64_t rows() const { return rows_; }
    uint64_t device_size() const { return order_; }  // what the device entry points take

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // NT scaling (H, rows x rows per block, the map X -> R X R of the
    // congruence matrix R). The list and array forms (from
    // DenseScalingForms) take the general path for every order; the batch
    // forms (from NtMethodForms) take the batched path (closed forms for
    // orders 1 and 2) or the device.
    static const NtMethodFamily& nt_methods();

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

private:
    friend class DenseScalingForms<PsdConeCpp>;
    friend class NtMethodForms<PsdConeCpp>;
    OwnedArray dense_scaling(const double* s, const double* z) const;
    void scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output, uint64_t batch,
                     uint64_t stream, NtMethod method) const;

    uint64_t order_;
    uint64_t rows_;
};

// Host algorithms on one svec vector x of an n x n matrix.
// Projection: eigenvalues clipped at 0, the matrix rebuilt and packed into
// out (which may be x).
void psd_project_host(const double* x, double* out, uint64_t n);
// Frobenius distance to the cone: the norm of the negative eigenvalues.
double psd_violation_host(const double* x, uint64_t n);

}  // namespace dravik::mirel::cones::cpp
