#include "cones/second_order_nt.hpp"

#include <omp.h>

#include "bindings/views.hpp"
#include "cones/parallel.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

void require_interior(const double* v, uint64_t n, const char* message) {
    if (!soc_strictly_interior(v[0], soc_tail_sum_sq(v, n), n)) fail(message);
}

void power_or_fail(const double* x, uint64_t n, double p, double* y, const char* message) {
    if (!soc_power(x, n, p, y)) fail(message);
}

uint64_t column_team_threshold(SocColumnThreads threads) {
    return threads == SocColumnThreads::CallingThread ? UINT64_MAX : kSocColumnTeamFrom - 1;
}

}  // namespace

SocNtScaling::SocNtScaling(uint64_t n, const char* not_interior, SocColumnThreads threads)
    : n_(n),
      not_interior_(not_interior),
      team_threshold_(column_team_threshold(threads)),
      a_(n),
      b_(n),
      u_(n),
      g_(n),
      scratch_(2 * kColumnGroup * n * static_cast<uint64_t>(team_size(n, team_threshold_))) {}

void SocNtScaling::prepare(const double* s, const double* z) {
    require_interior(s, n_, not_interior_);
    require_interior(z, n_, not_interior_);
    power_or_fail(s, n_, -0.5, a_.data(), not_interior_);
    power_or_fail(s, n_, 0.5, b_.data(), not_interior_);
    fa_ = soc_factors_of(a_.data(), n_);
    soc_quad_apply(a_.data(), fa_, z, n_, u_.data());
    power_or_fail(u_.data(), n_, 0.5, g_.data(), not_interior_);
    fb_ = soc_factors_of(b_.data(), n_);
    fg_ = soc_factors_of(g_.data(), n_);
}

namespace {

// d[l] = sum over i = 1..n-1 of a[i] * v_l[i] for the L vectors v_l stored
// one after another; each sum runs in index order on its own, the L sums
// interleaved so that their additions overlap.
template <int L>
void interleaved_tail_dots(const double* a, const double* v, uint64_t n, double* d) {
    for (int l = 0; l < L; ++l) d[l] = 0.0;
    for (uint64_t i = 1; i < n; ++i) {
        for (int l = 0; l < L; ++l) d[l] += a[i] * v[l * n + i];
    }
}

}  // namespace

// Columns j0 .. j0 + L - 1 of W: column j is P(B) P(G) P(A) e_j, computed
// by the same steps and in the same order whatever L is.
template <int L>
void SocNtScaling::write_column_group(uint64_t j0, double* p, double* v, double* w) const {
    const uint64_t n = n_;
    const double* b = b_.data();
    const double* g = g_.data();
    double d[L];
    for (int l = 0; l < L; ++l) soc_quad_unit_column(a_.data(), fa_, n, j0 + l, p + l * n);
    // v = P(G) p
    interleaved_tail_dots<L>(g, p, n, d);
    for (int l = 0; l < L; ++l) v[l * n] = soc_quad_head(fg_, p[l * n], d[l]);
    for (uint64_t i = 1; i < n; ++i) {
        for (int l = 0; l < L; ++l) {
            v[l * n + i] = soc_quad_entry(fg_, g[i], p[l * n + i], p[l * n], d[l]);
        }
    }
    // w = P(B) v, straight into the columns of W
    interleaved_tail_dots<L>(b, v, n, d);
    for (int l = 0; l < L; ++l) w[j0 + l] = soc_quad_head(fb_, v[l * n], d[l]);
    for (uint64_t i = 1; i < n; ++i) {
        for (int l = 0; l < L; ++l) {
            w[i * n + j0 + l] = soc_quad_entry(fb_, b[i], v[l * n + i], v[l * n], d[l]);
        }
    }
}

void SocNtScaling::write_columns(uint64_t begin, uint64_t end, double* scratch, double* w) const {
    double* p = scratch;
    double* v = scratch + kColumnGroup * n_;
    uint64_t j = begin;
    for (; j + kColumnGroup <= end; j += kColumnGroup) write_column_group<kColumnGroup>(j, p, v, w);
    for (; j < end; ++j) write_column_group<1>(j, p, v, w);
}

void SocNtScaling::write(const double* s, const double* z, double* w) {
    prepare(s, z);
    double* scratch = scratch_.data();
    const uint64_t stride = 2 * kColumnGroup * n_;
    parallel_blocks(n_, team_threshold_, [&](uint64_t begin, uint64_t end) {
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
