#include "cones/psd_nt_host.hpp"

#include <algorithm>
#include <string>

#include "cones/jacobi_eigh.hpp"
#include "core/errors.hpp"
#include "math/psd_nt.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

constexpr const char* kPrefix = "PSD NT scaling";
constexpr const char* kNotPositiveInputs =
    "PSD NT scaling requires strictly positive definite inputs";

// n = 1: all entries 0.0 first, then z / s block by block.
void scale_order_one(const double* s, const double* z, double* out, uint64_t batch) {
    std::fill(out, out + batch, 0.0);
    for (uint64_t b = 0; b < batch; ++b) {
        if (!psd1_positive(s[b], z[b])) fail(kNotPositiveInputs);
        out[b] = z[b] / s[b];
    }
}

// n = 2: the closed form, each block written once it has passed.
void scale_order_two(const double* s, const double* z, double* out, uint64_t batch) {
    for (uint64_t b = 0; b < batch; ++b) {
        const Psd2NtCongruence c = psd2_nt_congruence(s + 3 * b, z + 3 * b);
        if (!c.positive) fail(kNotPositiveInputs);
        psd2_nt_operator(c.r, out + 9 * b);
    }
}

}  // namespace

void psd_nt_operator_from_congruence(const double* r, uint64_t n, double* h) {
    const uint64_t rows = svec_length(n);
    std::vector<SvecPosition> at(rows);
    for (uint64_t k = 0; k < rows; ++k) at[k] = svec_position(k);
    for (uint64_t i = 0; i < rows; ++i) {
        for (uint64_t j = 0; j < rows; ++j) {
            h[i * rows + j] = psd_nt_operator_entry_at(r, n, at[i], at[j]);
        }
    }
}

std::vector<double> psd_matrix_power(const std::vector<double>& a, uint64_t n, const char* prefix,
                                     double p) {
    std::vector<double> work(a);
    std::vector<double> v;
    jacobi_eigh(work, v, n);
    std::vector<double> mu(n);
    for (uint64_t k = 0; k < n; ++k) {
        const double lambda = work[k * n + k];
        if (lambda <= 0.0) {
            fail(std::string(prefix) + " requires strictly positive definite matrices");
        }
        mu[k] = psd_eigen_power(lambda, p);
    }
    std::vector<double> out(n * n);
    for (uint64_t i = 0; i < n; ++i) {
        for (uint64_t j = 0; j < n; ++j) {
            out[i * n + j] = psd_power_entry(v.data(), n, 1, mu.data(), n, i, j);
        }
    }
    return out;
}

std::vector<double> dense_matmul(const std::vector<double>& a, const std::vector<double>& b,
                                 uint64_t n) {
    std::vector<double> c(n * n);
    dense_matmul_into(a.data(), b.data(), c.data(), n);
    return c;
}

std::vector<double> psd_nt_congruence(const double* s, const double* z, uint64_t n) {
    const std::vector<double> sm = smat_unpack(s, n);
    const std::vector<double> zm = smat_unpack(z, n);
    const std::vector<double> half = psd_matrix_power(sm, n, kPrefix, 0.5);
    const std::vector<double> inv_half = psd_matrix_power(sm, n, kPrefix, -0.5);
    const std::vector<double> m = dense_matmul(dense_matmul(half, zm, n), half, n);
    const std::vector<double> m_half = psd_matrix_power(m, n, kPrefix, 0.5);
    return dense_matmul(dense_matmul(inv_half, m_half, n), inv_half, n);
}

void psd_nt_scaling_batch_host(const double* s, const double* z, double* out, uint64_t n,
                               uint64_t batch) {
    if (batch == 0) return;
    if (n == 1) return scale_order_one(s, z, out, batch);
    if (n == 2) return scale_order_two(s, z, out, batch);
    // H_b from R_b, written in place: R_b is complete (or has raised) before
    // the first entry of the block is written.
    const uint64_t rows = svec_length(n);
    for (uint64_t b = 0; b < batch; ++b) {
        const std::vector<double> r = psd_nt_congruence(s + b * rows, z + b * rows, n);
        psd_nt_operator_from_congruence(r.data(), n, out + b * rows * rows);
    }
}

}  // namespace dravik::mirel::cones::cpp
