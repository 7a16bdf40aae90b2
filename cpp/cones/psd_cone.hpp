// The cone of symmetric positive semidefinite dim x dim matrices, its vectors
// held in svec form (rows = dim (dim + 1) / 2 entries). Host arrays go through
// the Jacobi eigen-decomposition on the calling thread; CUDA arrays are
// supported for dim = 2 through the closed-form 2 x 2 device functions.
#pragma once

#include <cstdint>

#include "bindings/views.hpp"

namespace dravik::mirel::cones::cpp {

class PsdConeCpp {
public:
    explicit PsdConeCpp(uint64_t dim);

    uint64_t dim() const { return dim_; }
    uint64_t rows() const { return rows_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

private:
    uint64_t dim_;
    uint64_t rows_;
};

// Host algorithms on one svec vector x of an n x n matrix.
// Projection: eigenvalues clipped at 0, the matrix rebuilt and packed into
// out (which may be x).
void psd_project_host(const double* x, double* out, uint64_t n);
// Frobenius distance to the cone: the norm of the negative eigenvalues.
double psd_violation_host(const double* x, uint64_t n);

}  // namespace dravik::mirel::cones::cpp
