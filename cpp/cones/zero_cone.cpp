#include "cones/zero_cone.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "cones/frame/dense_builders.hpp"
#include "cones/frame/dispatch.hpp"
#include "cones/frame/pair_checks.hpp"
#include "cones/frame/parallel.hpp"
#include "cones/frame/sparse_fill.hpp"
#include "cones/host_loops.hpp"
#include "cuda/dravik_kit_cuda.h"

namespace dravik::mirel::cones::cpp {

namespace {

constexpr double kZeroTolerance = 1e-10;
constexpr const char* kNotZero = "zero-cone NT scaling requires zero primal and dual vectors";

bool is_zero_total(double sum_of_squares) { return !(std::sqrt(sum_of_squares) > kZeroTolerance); }

// The zero tests of s and z (n entries each) inside a team: each thread sums
// the squares of its block of both vectors side by side (each sum in index
// order), the partials go into the two totals, and after the barrier every
// thread reads the same answer.
bool zero_pair_in_team(const Team& team, const double* s, const double* z, uint64_t n,
                       std::atomic<double>& total_s, std::atomic<double>& total_z) {
    const ItemRange r = team.block(n);
    double partial_s = 0.0;
    double partial_z = 0.0;
    host_loops().sum_sq_pair(s + r.begin, z + r.begin, r.end - r.begin, &partial_s, &partial_z);
    atomic_add(total_s, partial_s);
    atomic_add(total_z, partial_z);
    team.barrier();
    return is_zero_total(total_s.load(std::memory_order_relaxed)) &&
           is_zero_total(total_z.load(std::memory_order_relaxed));
}

// The host batch on one team: the zero tests over all n * batch entries,
// then, when both pass, each thread writes its block of identity blocks. A
// failure leaves out untouched and is reported after the join.
void identity_batch_host(const double* s, const double* z, double* out, uint64_t n,
                         uint64_t batch) {
    std::atomic<double> total_s{0.0};
    std::atomic<double> total_z{0.0};
    std::atomic<bool> zero{false};
    in_one_team(n * batch, kParallelThreshold, [&](const Team& team) {
        if (!zero_pair_in_team(team, s, z, n * batch, total_s, total_z)) return;
        if (team.thread() == 0) zero.store(true, std::memory_order_relaxed);
        write_diagonal_blocks(out, n, team.block(batch), [](uint64_t, uint64_t) { return 1.0; });
    });
    if (!zero.load()) fail(kNotZero);
}

// The sparse fill asks for exact zeros: -0.0 passes, NaN and any nonzero fail.
bool exactly_zero(double v) { return v == 0.0; }

constexpr const char* kFillNotZero =
    "zero-cone sparse H fill requires zero primal and dual inputs";

// The zero cone's entry points take no s and z.
constexpr HmatrixDeviceFills kZeroDeviceFills{
    [](const double*, const double*, const int64_t* indptr, const int64_t* indices, double* values,
       size_t nnz, size_t rows, size_t row_offset, int device, cudaStream_t stream) {
        dravik_zero_hmatrix_csr_cuda(indptr, indices, values, nnz, rows, row_offset, device,
                                     stream);
    },
    [](const double*, const double*, const int64_t* row_indices, const int64_t* col_indices,
       double* values, size_t nnz, size_t rows, size_t row_offset, int device,
       cudaStream_t stream) {
        dravik_zero_hmatrix_coo_cuda(row_indices, col_indices, values, nnz, rows, row_offset,
                                     device, stream);
    }};

// The zero cone has no scaling to compute, no step to bound and no device
// work for either; its identity and H are zeros.
void no_device_scaling(const double*, const double*, double*, size_t, size_t, double, int,
                       cudaStream_t) {}

double unbounded_step(const double*, const double*, size_t, size_t, int, cudaStream_t) {
    return INFINITY;
}

constexpr KitDeviceFns kZeroKitDevice{dravik_zero_identity_cuda,
                                      unbounded_step,
                                      no_device_scaling,
                                      nullptr,
                                      nullptr,
                                      dravik_zero_nt_hessian_cuda,
                                      dravik_zero_nt_hessian_csr_cuda,
                                      dravik_zero_nt_hessian_coo_cuda,
                                      nullptr,
                                      nullptr};

}  // namespace

const KitDeviceFns& ZeroConeCpp::kit_device() { return kZeroKitDevice; }

void ZeroConeCpp::require_zero_pair(const double* s, const double* z, uint64_t n) const {
    std::atomic<double> total_s{0.0};
    std::atomic<double> total_z{0.0};
    std::atomic<bool> zero{false};
    in_one_team(n, kParallelThreshold, [&](const Team& team) {
        const bool passed = zero_pair_in_team(team, s, z, n, total_s, total_z);
        if (team.thread() == 0) zero.store(passed, std::memory_order_relaxed);
    });
    if (!zero.load()) fail(kNotZero);
}

void ZeroConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                               uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, rows_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_zero_project_cuda(in.data, out.data, rows_, device, as_stream(stream));
        },
        [&] {
            double* o = out.data;
            parallel_blocks(rows_, kParallelThreshold, [o](uint64_t begin, uint64_t end) {
                std::fill(o + begin, o + end, 0.0);
            });
        });
}

double ZeroConeCpp::violation(const ArrayRef& input) const {
    const VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in, [&](int device) { return dravik_zero_violation_cuda(in.data, rows_, device); },
        [&] { return std::sqrt(sum_of_squares(in.data, rows_)); });
}

bool ZeroConeCpp::contains(const ArrayRef& input, double atol) const {
    const VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in, [&](int device) { return dravik_zero_contains_cuda(in.data, rows_, device, atol); },
        [&] {
            // On the calling thread, a chunk at a time, stopping at the first
            // chunk with an entry whose absolute value is above atol.
            const HostLoops& loops = host_loops();
            const double* x = in.data;
            return !scan_chunks(
                rows_,
                [&](uint64_t i, uint64_t length) {
                    return loops.any_abs_above(x + i, length, atol);
                },
                [] { return false; });
        });
}

OwnedArray ZeroConeCpp::dense_scaling(const double* s, const double* z) const {
    require_zero_pair(s, z, rows_);
    return identity_array(rows_);
}

void ZeroConeCpp::nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z,
                                               const ArrayRef& output, uint64_t batch,
                                               uint64_t stream) const {
    const uint64_t n = rows_;
    const NtBatchViews v = nt_batch_views(s, z, output, n, batch);
    const VectorView &sv = v.s, &zv = v.z, &out = v.out;
    run_on(
        out,
        [&](int device) {
            dravik_zero_nt_scaling_batch_cuda(out.data, n, batch, device, as_stream(stream));
        },
        [&] { identity_batch_host(sv.data, zv.data, out.data, n, batch); });
}

void ZeroConeCpp::hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        require_pairs(s, z, rows_, exactly_zero, kFillNotZero);
        return HmatrixDirect{kHmatrixZero, nullptr, nullptr};
    };
    fill_hmatrix(layout, args, rows_, rows_, kZeroDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
