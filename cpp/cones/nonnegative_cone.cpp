#include "cones/nonnegative_cone.hpp"

#include <atomic>
#include <cmath>
#include <string>

#include "cones/frame/dense_builders.hpp"
#include "cones/frame/dispatch.hpp"
#include "cones/frame/pair_checks.hpp"
#include "cones/frame/parallel.hpp"
#include "cones/frame/sparse_fill.hpp"
#include "cones/host_loops.hpp"
#include "cuda/dravik_kit_cuda.h"
#include "math/nonnegative.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

constexpr const char* kScalingLabel = "nonnegative NT scaling";
constexpr const char* kNotPositive =
    "nonnegative NT scaling requires strictly positive interior inputs";
constexpr const char* kFillNotPositive =
    "nonnegative sparse H fill requires strictly positive inputs";

constexpr KitDeviceFns kNonnegativeKitDevice{
    dravik_nonnegative_identity_cuda,
    dravik_nonnegative_max_step_cuda,
    nt_scaling_without_mu<dravik_nonnegative_nt_scaling_cuda>,
    dravik_nonnegative_nt_scaled_point_cuda,
    dravik_nonnegative_nt_apply_cuda,
    dravik_nonnegative_nt_hessian_cuda,
    dravik_nonnegative_nt_hessian_csr_cuda,
    dravik_nonnegative_nt_hessian_coo_cuda,
    dravik_nonnegative_jordan_product_cuda,
    dravik_nonnegative_jordan_divide_cuda};

constexpr HmatrixDeviceFills kNonnegativeDeviceFills{dravik_nonnegative_hmatrix_csr_cuda,
                                                     dravik_nonnegative_hmatrix_coo_cuda};

// Scan on the calling thread, a chunk at a time, stopping at the first
// chunk holding an entry below -atol.
bool all_above_serial(const double* x, uint64_t n, double atol) {
    const HostLoops& loops = host_loops();
    return !scan_chunks(
        n, [&](uint64_t i, uint64_t length) { return loops.any_below(x + i, length, -atol); },
        [] { return false; });
}

// Team scan: a shared flag, read and set with relaxed atomics, records that
// some entry fell below -atol; each thread consults it once per chunk of its
// block and stops testing once it is set.
bool all_above_team(const double* x, uint64_t n, double atol) {
    const HostLoops& loops = host_loops();
    std::atomic<bool> failed{false};
    parallel_blocks(n, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
        const bool below = scan_chunks(
            end - begin,
            [&](uint64_t i, uint64_t length) {
                return loops.any_below(x + begin + i, length, -atol);
            },
            [&] { return failed.load(std::memory_order_relaxed); });
        if (below) failed.store(true, std::memory_order_relaxed);
    });
    return !failed.load(std::memory_order_relaxed);
}

// The host batch on one team: the positivity test of every s and z entry
// (each thread its block of the n * batch entries), a barrier, then, when
// no entry failed, each thread writes its block of diagonal blocks. A
// failure leaves out untouched and is reported after the join.
void scale_batch_host(const double* s, const double* z, double* out, uint64_t n, uint64_t batch) {
    const HostLoops& loops = host_loops();
    std::atomic<bool> failed{false};
    in_one_team(n * batch, kParallelThreshold, [&](const Team& team) {
        const ItemRange entries = team.block(n * batch);
        const bool bad = scan_chunks(
            entries.end - entries.begin,
            [&](uint64_t i, uint64_t length) {
                const uint64_t at = entries.begin + i;
                return loops.any_at_most(s + at, length, 0.0) ||
                       loops.any_at_most(z + at, length, 0.0);
            },
            [&] { return failed.load(std::memory_order_relaxed); });
        if (bad) failed.store(true, std::memory_order_relaxed);
        team.barrier();
        if (failed.load(std::memory_order_relaxed)) return;
        write_diagonal_blocks(out, n, team.block(batch),
                              [=](uint64_t b, uint64_t k) { return z[b * n + k] / s[b * n + k]; });
    });
    if (failed.load()) fail(kNotPositive);
}

}  // namespace

const KitDeviceFns& NonnegativeConeCpp::kit_device() { return kNonnegativeKitDevice; }

void NonnegativeConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                                      uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, rows_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_nonnegative_project_cuda(in.data, out.data, rows_, device, as_stream(stream));
        },
        [&] {
            const double* x = in.data;
            double* o = out.data;
            const HostLoops& loops = host_loops();
            parallel_blocks(rows_, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
                loops.clip_nonnegative(x + begin, o + begin, end - begin);
            });
        });
}

double NonnegativeConeCpp::violation(const ArrayRef& input) const {
    const VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in, [&](int device) { return dravik_nonnegative_violation_cuda(in.data, rows_, device); },
        [&] {
            const double* x = in.data;
            const HostLoops& loops = host_loops();
            return std::sqrt(
                parallel_block_sum(rows_, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
                    return loops.negative_sum_sq(x + begin, end - begin);
                }));
        });
}

bool NonnegativeConeCpp::contains(const ArrayRef& input, double atol) const {
    const VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in,
        [&](int device) { return dravik_nonnegative_contains_cuda(in.data, rows_, device, atol); },
        [&] {
            if (rows_ <= kParallelThreshold) return all_above_serial(in.data, rows_, atol);
            return all_above_team(in.data, rows_, atol);
        });
}

OwnedArray NonnegativeConeCpp::dense_scaling(const double* s, const double* z) const {
    return diagonal_ratio_array(z, s, rows_, kScalingLabel);
}

void NonnegativeConeCpp::nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z,
                                                      const ArrayRef& output, uint64_t batch,
                                                      uint64_t stream) const {
    const uint64_t n = rows_;
    const NtBatchViews v = nt_batch_views(s, z, output, n, batch);
    const VectorView &sv = v.s, &zv = v.z, &out = v.out;
    run_on(
        out,
        [&](int device) {
            // The device writes whatever the quotients give; no positivity test.
            dravik_nonnegative_nt_scaling_batch_cuda(sv.data, zv.data, out.data, n, batch, device,
                                                     as_stream(stream));
        },
        [&] { scale_batch_host(sv.data, zv.data, out.data, n, batch); });
}

void NonnegativeConeCpp::hmatrix_values_into(SparseLayout layout,
                                             const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        require_positive_pairs(s, z, rows_, kFillNotPositive);
        return HmatrixDirect{kHmatrixNonnegative, s, z};
    };
    fill_hmatrix(layout, args, rows_, rows_, kNonnegativeDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
