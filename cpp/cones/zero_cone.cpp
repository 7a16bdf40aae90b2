#include "cones/zero_cone.hpp"

#include <algorithm>
#include <cmath>

#include "cones/dense.hpp"
#include "cones/dispatch.hpp"
#include "cones/hmatrix_fill.hpp"
#include "cones/pair_checks.hpp"
#include "cones/parallel.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

constexpr double kZeroTolerance = 1e-10;

bool is_zero_vector(const double* v, uint64_t n) {
    return !(std::sqrt(sum_of_squares(v, n)) > kZeroTolerance);
}

// The sparse fill asks for exact zeros: -0.0 passes, NaN and any nonzero fail.
bool exactly_zero(double v) { return v == 0.0; }

constexpr const char* kFillNotZero =
    "zero-cone sparse H fill requires zero primal and dual inputs";

// The zero cone's entry points take no s and z.
constexpr HmatrixDeviceFills kZeroDeviceFills{
    [](const double*, const double*, const int64_t* indptr, const int64_t* indices,
       double* values, size_t nnz, size_t dim, size_t row_offset, int device,
       cudaStream_t stream) {
        dravik_zero_hmatrix_csr_cuda(indptr, indices, values, nnz, dim, row_offset, device,
                                     stream);
    },
    [](const double*, const double*, const int64_t* row_indices, const int64_t* col_indices,
       double* values, size_t nnz, size_t dim, size_t row_offset, int device,
       cudaStream_t stream) {
        dravik_zero_hmatrix_coo_cuda(row_indices, col_indices, values, nnz, dim, row_offset,
                                     device, stream);
    }};

}  // namespace

void ZeroConeCpp::require_zero_pair(const double* s, const double* z, uint64_t n) const {
    if (!is_zero_vector(s, n) || !is_zero_vector(z, n)) {
        fail("zero-cone NT scaling requires zero primal and dual vectors");
    }
}

void ZeroConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                               uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, dim_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_zero_project_cuda(in.data, out.data, dim_, device, as_stream(stream));
        },
        [&] {
            double* o = out.data;
            parallel_blocks(dim_, kParallelThreshold, [o](uint64_t begin, uint64_t end) {
                std::fill(o + begin, o + end, 0.0);
            });
        });
}

double ZeroConeCpp::violation(const ArrayRef& input) const {
    const VectorView in = checked_vector_view(input, dim_, "input");
    return run_on(
        in, [&](int device) { return dravik_zero_violation_cuda(in.data, dim_, device); },
        [&] { return std::sqrt(sum_of_squares(in.data, dim_)); });
}

bool ZeroConeCpp::contains(const ArrayRef& input, double atol) const {
    const VectorView in = checked_vector_view(input, dim_, "input");
    return run_on(
        in, [&](int device) { return dravik_zero_contains_cuda(in.data, dim_, device, atol); },
        [&] {
            for (uint64_t i = 0; i < dim_; ++i) {
                if (std::fabs(in.data[i]) > atol) return false;
            }
            return true;
        });
}

std::vector<double> ZeroConeCpp::nt_scaling_matrix(const ArrayRef& s, const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    require_zero_pair(sv.data, zv.data, dim_);
    return identity_values(dim_);
}

OwnedArray ZeroConeCpp::nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    require_zero_pair(sv.data, zv.data, dim_);
    return identity_array(dim_);
}

void ZeroConeCpp::nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z,
                                               const ArrayRef& output, uint64_t batch,
                                               uint64_t stream) const {
    const uint64_t n = dim_;
    const NtBatchViews v = nt_batch_views(s, z, output, n, batch);
    const VectorView &sv = v.s, &zv = v.z, &out = v.out;
    run_on(
        out,
        [&](int device) {
            dravik_zero_nt_scaling_batch_cuda(out.data, n, batch, device, as_stream(stream));
        },
        [&] {
            require_zero_pair(sv.data, zv.data, n * batch);
            fill_diagonal_blocks(out.data, n, batch, [](uint64_t, uint64_t) { return 1.0; });
        });
}

void ZeroConeCpp::hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        require_pairs(s, z, dim_, exactly_zero, kFillNotZero);
        return HmatrixDirect{kHmatrixZero, nullptr, nullptr};
    };
    fill_hmatrix(layout, args, dim_, dim_, kZeroDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
