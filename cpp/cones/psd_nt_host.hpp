// PSD Nesterov-Todd scaling on the host, on the calling thread. The general
// path (every order n) decomposes with jacobi_eigh and raises "PSD NT
// scaling requires strictly positive definite matrices"; the batched path
// takes closed forms for n = 1 and n = 2, which raise "PSD NT scaling
// requires strictly positive definite inputs", and the general path for
// n >= 3. Matrices are dense row-major n x n; s and z are svec vectors.
#pragma once

#include <cstdint>
#include <vector>

namespace dravik::mirel::cones::cpp {

// A^p through the eigen-decomposition of a copy of A: the sum over k of
// (V[i][k] pow(lambda_k, p)) V[j][k], not symmetrised. Raises `prefix` +
// " requires strictly positive definite matrices" when an eigenvalue is
// <= 0 (NaN passes).
std::vector<double> psd_matrix_power(const std::vector<double>& a, uint64_t n, const char* prefix,
                                     double p);

// A B, each entry summed over k ascending.
std::vector<double> dense_matmul(const std::vector<double>& a, const std::vector<double>& b,
                                 uint64_t n);

// The congruence matrix R = S^-1/2 (S^1/2 Z S^1/2)^1/2 S^-1/2 of svec s
// and z (R S R = Z), S decomposed once per power; neither M nor R
// symmetrised.
std::vector<double> psd_nt_congruence(const double* s, const double* z, uint64_t n);

// H (rows x rows, rows = n (n + 1) / 2, the map X -> R X R), entry by entry
// from R, into h.
void psd_nt_operator_from_congruence(const double* r, uint64_t n, double* h);

// `batch` blocks of H into out (rows^2 each). A failing block b raises after
// the blocks before it are written; for n = 1 the entries from b on are
// 0.0, for n >= 2 the blocks from b on are left as they were.
void psd_nt_scaling_batch_host(const double* s, const double* z, double* out, uint64_t n,
                               uint64_t batch);

}  // namespace dravik::mirel::cones::cpp
