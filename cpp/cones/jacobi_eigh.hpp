// Symmetric eigen-decomposition by the classical Jacobi method: every
// rotation annihilates the largest off-diagonal entry of the upper triangle.
//
// A (n x n, row-major) is overwritten; on return A[i][i] is eigenvalue i.
// V is resized to n * n and receives the eigenvectors as columns: column i
// (V[0][i] ... V[n-1][i]) belongs to A[i][i]. Eigenvalues are not sorted.
// The pivot is the first entry in row-major order whose magnitude is the
// largest (strictly greater wins, NaN is never chosen); iteration stops when
// that magnitude is below 1e-12 or after 32 n^2 rotations, without error.
#pragma once

#include <cstdint>
#include <vector>

namespace dravik::mirel::cones::cpp {

// Finds each pivot from per-row maxima, refreshing only the rows a rotation
// touched.
void jacobi_eigh(std::vector<double>& a, std::vector<double>& v, uint64_t n);

// The same rotations, finding each pivot by scanning the whole upper
// triangle: the method the PSD kernels run (math/jacobi.hpp), kept
// here to check jacobi_eigh against, bit for bit, and to time it.
void jacobi_eigh_full_scan(std::vector<double>& a, std::vector<double>& v, uint64_t n);

}  // namespace dravik::mirel::cones::cpp
