#include "cones/second_order_nt.hpp"

#include <omp.h>

#include "bindings/views.hpp"
#include "cones/parallel.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

constexpr const char* kNotInterior = "SOC NT scaling requires strictly interior cone vectors";

void require_interior(const double* v, uint64_t n) {
    if (!soc_strictly_interior(v[0], soc_tail_sum_sq(v, n), n)) fail(kNotInterior);
}

void power_or_fail(const double* x, uint64_t n, double p, double* y) {
    if (!soc_power(x, n, p, y)) fail(kNotInterior);
}

}  // namespace

SocNtScaling::SocNtScaling(uint64_t n)
    : n_(n), a_(n), b_(n), u_(n), g_(n),
      scratch_(2 * n * static_cast<uint64_t>(team_size(n, kSocColumnTeamFrom - 1))) {}

void SocNtScaling::prepare(const double* s, const double* z) {
    require_interior(s, n_);
    require_interior(z, n_);
    power_or_fail(s, n_, -0.5, a_.data());
    power_or_fail(s, n_, 0.5, b_.data());
    fa_ = soc_factors_of(a_.data(), n_);
    soc_quad_apply(a_.data(), fa_, z, n_, u_.data());
    power_or_fail(u_.data(), n_, 0.5, g_.data());
    fb_ = soc_factors_of(b_.data(), n_);
    fg_ = soc_factors_of(g_.data(), n_);
}

// Column j of W is P(B) P(G) P(A) e_j; P(A) e_j is written entry by entry.
void SocNtScaling::write_columns(uint64_t begin, uint64_t end, double* scratch, double* w) const {
    const uint64_t n = n_;
    const double* a = a_.data();
    const double* b = b_.data();
    double* p = scratch;
    double* v = scratch + n;
    for (uint64_t j = begin; j < end; ++j) {
        for (uint64_t i = 0; i < n; ++i) p[i] = soc_quad_matrix_entry(fa_, i, j, a[i], a[j]);
        soc_quad_apply(g_.data(), fg_, p, n, v);
        const double d = soc_tail_dot(b, v, n);
        w[j] = soc_quad_head(fb_, v[0], d);
        for (uint64_t i = 1; i < n; ++i) w[i * n + j] = soc_quad_entry(fb_, b[i], v[i], v[0], d);
    }
}

void SocNtScaling::write(const double* s, const double* z, double* w) {
    prepare(s, z);
    double* scratch = scratch_.data();
    const uint64_t stride = 2 * n_;
    parallel_blocks(n_, kSocColumnTeamFrom - 1, [&](uint64_t begin, uint64_t end) {
        const uint64_t thread = static_cast<uint64_t>(omp_get_thread_num());
        write_columns(begin, end, scratch + thread * stride, w);
    });
}

std::vector<double> soc_nt_scaling_dense(const double* s, const double* z, uint64_t n) {
    SocNtScaling scaling(n);
    std::vector<double> w(n * n, 0.0);
    scaling.write(s, z, w.data());
    return w;
}

}  // namespace dravik::mirel::cones::cpp
