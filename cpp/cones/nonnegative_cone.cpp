#include "cones/nonnegative_cone.hpp"

#include <atomic>
#include <cmath>
#include <string>

#include "cones/dense.hpp"
#include "cones/dispatch.hpp"
#include "cones/hmatrix_fill.hpp"
#include "cones/math/nonnegative.hpp"
#include "cones/pair_checks.hpp"
#include "cones/parallel.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

constexpr const char* kScalingLabel = "nonnegative NT scaling";
constexpr const char* kNotPositive =
    "nonnegative NT scaling requires strictly positive interior inputs";
constexpr const char* kFillNotPositive =
    "nonnegative sparse H fill requires strictly positive inputs";

constexpr HmatrixDeviceFills kNonnegativeDeviceFills{dravik_nonnegative_hmatrix_csr_cuda,
                                                     dravik_nonnegative_hmatrix_coo_cuda};

// Scan on the calling thread, stopping at the first entry below -atol.
bool all_above_serial(const double* x, uint64_t n, double atol) {
    for (uint64_t i = 0; i < n; ++i) {
        if (nonnegative_below(x[i], atol)) return false;
    }
    return true;
}

// Team scan: a shared flag, read and set with relaxed atomics, records that
// some entry fell below -atol; once it is set no thread tests further.
bool all_above_team(const double* x, uint64_t n, double atol) {
    std::atomic<bool> failed{false};
    parallel_blocks(n, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
        for (uint64_t i = begin; i < end; ++i) {
            if (!failed.load(std::memory_order_relaxed) && nonnegative_below(x[i], atol)) {
                failed.store(true, std::memory_order_relaxed);
            }
        }
    });
    return !failed.load(std::memory_order_relaxed);
}

}  // namespace

void NonnegativeConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                                      uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, dim_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_nonnegative_project_cuda(in.data, out.data, dim_, device, as_stream(stream));
        },
        [&] {
            const double* x = in.data;
            double* o = out.data;
            parallel_blocks(dim_, kParallelThreshold, [x, o](uint64_t begin, uint64_t end) {
                for (uint64_t i = begin; i < end; ++i) o[i] = nonnegative_clip(x[i]);
            });
        });
}

double NonnegativeConeCpp::violation(const ArrayRef& input) const {
    const VectorView in = checked_vector_view(input, dim_, "input");
    return run_on(
        in, [&](int device) { return dravik_nonnegative_violation_cuda(in.data, dim_, device); },
        [&] {
            const double* x = in.data;
            return std::sqrt(parallel_sum(dim_, kParallelThreshold, [x](uint64_t i) {
                return nonnegative_violation_term(x[i]);
            }));
        });
}

bool NonnegativeConeCpp::contains(const ArrayRef& input, double atol) const {
    const VectorView in = checked_vector_view(input, dim_, "input");
    return run_on(
        in,
        [&](int device) { return dravik_nonnegative_contains_cuda(in.data, dim_, device, atol); },
        [&] {
            if (dim_ <= kParallelThreshold) return all_above_serial(in.data, dim_, atol);
            return all_above_team(in.data, dim_, atol);
        });
}

std::vector<double> NonnegativeConeCpp::nt_scaling_matrix(const ArrayRef& s,
                                                          const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    return diagonal_ratio_values(zv.data, sv.data, dim_, kScalingLabel);
}

OwnedArray NonnegativeConeCpp::nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    return diagonal_ratio_array(zv.data, sv.data, dim_, kScalingLabel);
}

void NonnegativeConeCpp::nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z,
                                                      const ArrayRef& output, uint64_t batch,
                                                      uint64_t stream) const {
    const uint64_t n = dim_;
    const NtBatchViews v = nt_batch_views(s, z, output, n, batch);
    const VectorView &sv = v.s, &zv = v.z, &out = v.out;
    run_on(
        out,
        [&](int device) {
            // The device writes whatever the quotients give; no positivity test.
            dravik_nonnegative_nt_scaling_batch_cuda(sv.data, zv.data, out.data, n, batch, device,
                                                     as_stream(stream));
        },
        [&] {
            const double* sd = sv.data;
            const double* zd = zv.data;
            require_positive_pairs(sd, zd, n * batch, kNotPositive);
            fill_diagonal_blocks(out.data, n, batch, [=](uint64_t b, uint64_t k) {
                return zd[b * n + k] / sd[b * n + k];
            });
        });
}

void NonnegativeConeCpp::hmatrix_values_into(SparseLayout layout,
                                             const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        require_positive_pairs(s, z, dim_, kFillNotPositive);
        return HmatrixDirect{kHmatrixNonnegative, s, z};
    };
    fill_hmatrix(layout, args, dim_, dim_, kNonnegativeDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
