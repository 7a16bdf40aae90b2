#include "cones/second_order_nt.hpp"

#include <atomic>

#include "cones/frame/parallel.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

uint64_t column_team_threshold(SocColumnThreads threads) {
    return threads == SocColumnThreads::CallingThread ? UINT64_MAX : kSocColumnTeamFrom - 1;
}

// Doubles of scratch per thread: A, B, u and G, then one column group.
uint64_t thread_scratch(uint64_t n) { return 4 * n + soc_column_scratch(n); }

// A = s^-1/2, B = s^1/2, u = P(A) z and G = u^1/2 into work (4 n doubles)
// and their factors into in; false when s, z or u is not strictly interior.
bool prepare(const double* s, const double* z, uint64_t n, double* work, SocColumnInputs& in) {
    double* a = work;
    double* b = work + n;
    double* u = work + 2 * n;
    double* g = work + 3 * n;
    if (!soc_strictly_interior(s[0], soc_tail_sum_sq(s, n), n)) return false;
    if (!soc_strictly_interior(z[0], soc_tail_sum_sq(z, n), n)) return false;
    if (!soc_power(s, n, -0.5, a) || !soc_power(s, n, 0.5, b)) return false;
    const SocFactors fa = soc_factors_of(a, n);
    soc_quad_apply(a, fa, z, n, u);
    if (!soc_power(u, n, 0.5, g)) return false;
    in = {a, b, g, fa, soc_factors_of(b, n), soc_factors_of(g, n), n};
    return true;
}

}  // namespace

SocNtScaling::SocNtScaling(uint64_t n, const char* not_interior, SocColumnThreads threads,
                           const HostLoops& loops)
    : n_(n),
      not_interior_(not_interior),
      team_threshold_(column_team_threshold(threads)),
      loops_(loops),
      scratch_(thread_scratch(n) * static_cast<uint64_t>(team_size(n, team_threshold_))) {}

void SocNtScaling::write(const double* s, const double* z, double* h) { write_batch(s, z, h, 1); }

void SocNtScaling::write_batch(const double* s, const double* z, double* h, uint64_t batch) {
    const uint64_t n = n_;
    std::atomic<bool> failed{false};
    in_one_team(n, team_threshold_, [&](const Team& team) {
        double* work = scratch_.data() + team.thread() * thread_scratch(n);
        const ItemRange columns = team.block(n);
        SocColumnInputs in{};
        for (uint64_t b = 0; b < batch; ++b) {
            if (!prepare(s + b * n, z + b * n, n, work, in)) {
                failed.store(true, std::memory_order_relaxed);
                return;
            }
            loops_.soc_nt_columns(in, columns.begin, columns.end, work + 4 * n, h + b * n * n);
        }
    });
    if (failed.load()) fail(not_interior_);
}

}  // namespace dravik::mirel::cones::cpp
