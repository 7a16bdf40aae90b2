#include "cones/frame/dense_builders.hpp"

#include <cmath>
#include <limits>
#include <string>

#include "cones/frame/pair_checks.hpp"
#include "cones/frame/parallel.hpp"
#include "math/rank_two.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

void require_unit_index(uint64_t n, uint64_t index) {
    if (index >= n) fail("unit vector index out of range");
}

// 1.0 at k * (n + 1) for k < n; the block is already zero.
void write_identity_diagonal(double* m, uint64_t n) {
    parallel_blocks(n, kDiagonalThreshold, [m, n](uint64_t begin, uint64_t end) {
        for (uint64_t k = begin; k < end; ++k) m[k * (n + 1)] = 1.0;
    });
}

std::string not_positive_message(const char* what) {
    return std::string(what) + " requires strictly positive interior inputs";
}

}  // namespace

std::vector<double> unit_vector_values(uint64_t n, uint64_t index) {
    require_unit_index(n, index);
    std::vector<double> v(n, 0.0);
    v[index] = 1.0;
    return v;
}

OwnedArray unit_vector_array(uint64_t n, uint64_t index) {
    require_unit_index(n, index);
    OwnedArray out = make_owned_vector(n, "unit vector");
    out.data()[index] = 1.0;
    return out;
}

void fill_unit_vector(double* destination, uint64_t n, uint64_t index) {
    require_unit_index(n, index);
    for (uint64_t i = 0; i < n; ++i) destination[i] = 0.0;
    destination[index] = 1.0;
}

OwnedArray identity_array(uint64_t n) {
    OwnedArray out = make_owned_matrix(n, "identity matrix");
    write_identity_diagonal(out.data(), n);
    return out;
}

OwnedArray dense_matrix_array(const std::vector<double>& values, uint64_t n, const char* what) {
    if (values.size() != n * n) fail(std::string(what) + " internal dense matrix size mismatch");
    OwnedArray out = make_owned_matrix(n, what);
    for (uint64_t i = 0; i < n * n; ++i) out.data()[i] = values[i];
    return out;
}

OwnedArray diagonal_ratio_array(const double* a, const double* b, uint64_t n, const char* what) {
    require_positive_pairs(a, b, n, not_positive_message(what));
    OwnedArray out = make_owned_matrix(n, what);
    double* m = out.data();
    parallel_blocks(n, kDiagonalThreshold, [=](uint64_t begin, uint64_t end) {
        for (uint64_t i = begin; i < end; ++i) m[i * (n + 1)] = a[i] / b[i];
    });
    return out;
}

std::vector<double> rank_two_map_values(const double* a, const double* b, uint64_t n,
                                        const char* what) {
    const double q = rank_two_q(a, n);
    if (!(q > 0.0 && std::fabs(q) <= std::numeric_limits<double>::max())) {
        fail(std::string(what) + " source vector must have nonzero finite norm");
    }
    std::vector<double> m(n * n);
    std::vector<double> d(n);
    for (uint64_t i = 0; i < n; ++i) d[i] = b[i] - a[i];
    const double c = rank_two_c(a, b, n);
    const double q2 = q * q;
    for (uint64_t r = 0; r < n; ++r) {
        for (uint64_t k = 0; k < n; ++k) {
            m[r * n + k] = rank_two_entry(r == k ? 1.0 : 0.0, a[r], a[k], d[r], d[k], q, c, q2);
        }
    }
    return m;
}

}  // namespace dravik::mirel::cones::cpp
