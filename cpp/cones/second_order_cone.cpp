#include "cones/second_order_cone.hpp"

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "cones/frame/dispatch.hpp"
#include "cones/frame/nt_methods.hpp"
#include "cones/frame/parallel.hpp"
#include "cones/frame/sparse_fill.hpp"
#include "cones/host_loops.hpp"
#include "cones/second_order_nt.hpp"
#include "cuda/dravik_kit_cuda.h"
#include "math/second_order.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

// This thread's partial of |x[1..rows-1]|^2: its block of all rows items in
// index order. Element 0 would add 0.0, which changes no partial, so it is
// skipped; the team decision and the block split are made on rows.
double tail_partial(const double* x, ItemRange r) {
    const uint64_t first = r.begin == 0 ? 1 : r.begin;
    return first < r.end ? host_loops().sum_sq(x + first, r.end - first, 0.0) : 0.0;
}

double tail_norm(const double* x, uint64_t rows) {
    return std::sqrt(
        parallel_block_sum(rows, kParallelThreshold, [x](uint64_t begin, uint64_t end) {
            return tail_partial(x, {begin, end});
        }));
}

// The projection rule of x inside a team: the tail norm by the two-stage
// sum, the barrier, then the rule. x[0] is read before the barrier, so that
// a thread writing out[0] afterwards cannot race with it when x is out.
SocProjection projection_rule(const Team& team, const double* x, uint64_t rows,
                              std::atomic<double>& total) {
    const double t = x[0];
    const double r = std::sqrt(team_total(team, total, tail_partial(x, team.block(rows))));
    return soc_projection(t, r);
}

bool arrays_overlap(const double* a, const double* b, uint64_t n) {
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + n * sizeof(double) && pb < pa + n * sizeof(double);
}

// This thread's block of the projection, after projection_rule.
void write_projection(const Team& team, const SocProjection& rule, const double* x, double* out,
                      uint64_t rows) {
    const ItemRange r = team.block(rows);
    switch (rule.kind) {
        case SocProjectionCase::Inside:
            // A copy that tolerates overlap: block by block when the arrays
            // are disjoint, one move on one thread when they partly overlap.
            if (out == x) return;
            if (!arrays_overlap(x, out, rows)) {
                std::memcpy(out + r.begin, x + r.begin, (r.end - r.begin) * sizeof(double));
            } else if (team.thread() == 0) {
                std::memmove(out, x, rows * sizeof(double));
            }
            return;
        case SocProjectionCase::Polar:
            std::fill(out + r.begin, out + r.end, 0.0);
            return;
        case SocProjectionCase::Between: {
            uint64_t first = r.begin;
            if (first == 0 && r.end > 0) out[first++] = rule.head;
            host_loops().scale(x + first, out + first, r.end - first, rule.scale);
            return;
        }
    }
}

// This thread's partial of the violation sum: (x[i] - p[i])^2 over its block
// in index order, p[i] being the entry the projection writes (x[i] copied,
// 0.0, or the head and x[i] * scale), formed without storing p.
double residual_partial(const Team& team, const SocProjection& rule, const double* x,
                        uint64_t rows) {
    const HostLoops& loops = host_loops();
    const ItemRange r = team.block(rows);
    switch (rule.kind) {
        case SocProjectionCase::Inside:  // x[i] - x[i]; x[i] * 1.0 is x[i] exactly
            return loops.residual_sum_sq(x + r.begin, r.end - r.begin, 1.0, 0.0);
        case SocProjectionCase::Polar:  // x[i] - 0.0 is x[i] exactly
            return loops.sum_sq(x + r.begin, r.end - r.begin, 0.0);
        case SocProjectionCase::Between:
        default: {
            uint64_t first = r.begin;
            double partial = 0.0;
            if (first == 0 && r.end > 0) {
                const double head = x[0] - rule.head;
                partial += head * head;
                ++first;
            }
            return loops.residual_sum_sq(x + first, r.end - first, rule.scale, partial);
        }
    }
}

constexpr NtMethodFamily kSocNtMethods{
    dravik_soc_nt_scaling_default_method_cuda,
    {dravik_soc_nt_scaling_batch_cuda, dravik_soc_nt_scaling_batch_custom_cuda,
     dravik_soc_nt_scaling_batch_cublas_cuda},
    "SOC cuBLAS NT scaling requires CUDA arrays"};

constexpr KitDeviceFns kSocKitDevice{dravik_soc_identity_cuda,
                                     dravik_soc_max_step_cuda,
                                     nt_scaling_without_mu<dravik_soc_nt_scaling_cuda>,
                                     dravik_soc_nt_scaled_point_cuda,
                                     dravik_soc_nt_apply_cuda,
                                     dravik_soc_nt_hessian_cuda,
                                     dravik_soc_nt_hessian_csr_cuda,
                                     dravik_soc_nt_hessian_coo_cuda,
                                     dravik_soc_jordan_product_cuda,
                                     dravik_soc_jordan_divide_cuda};

constexpr HmatrixDeviceFills kSocDeviceFills{dravik_soc_hmatrix_csr_cuda,
                                             dravik_soc_hmatrix_coo_cuda};

// Items in order; a failing item leaves the earlier ones written and itself
// and the later ones untouched.
void scale_batch_host(const double* s, const double* z, double* out, uint64_t n, uint64_t batch) {
    if (batch == 0) return;
    SocNtScaling(n).write_batch(s, z, out, batch);
}

}  // namespace

const KitDeviceFns& SecondOrderConeCpp::kit_device() { return kSocKitDevice; }

SecondOrderConeCpp::SecondOrderConeCpp(uint64_t rows) : rows_(rows) {
    if (rows == 0) fail("second-order cone dim must be positive");
}

void SecondOrderConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                                      uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, rows_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_soc_project_cuda(in.data, out.data, rows_, device, as_stream(stream));
        },
        [&] {
            // One team: the tail norm, a barrier, then this thread's block.
            const double* x = in.data;
            double* o = out.data;
            std::atomic<double> tail{0.0};
            in_one_team(rows_, kParallelThreshold, [&](const Team& team) {
                write_projection(team, projection_rule(team, x, rows_, tail), x, o, rows_);
            });
        });
}

double SecondOrderConeCpp::violation(const ArrayRef& input) const {
    VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in, [&](int device) { return dravik_soc_violation_cuda(in.data, rows_, device); },
        [&] {
            // One team: the tail norm, a barrier, then the residual sum.
            const double* x = in.data;
            std::atomic<double> tail{0.0};
            std::atomic<double> total{0.0};
            in_one_team(rows_, kParallelThreshold, [&](const Team& team) {
                const SocProjection rule = projection_rule(team, x, rows_, tail);
                atomic_add(total, residual_partial(team, rule, x, rows_));
            });
            return std::sqrt(total.load());
        });
}

bool SecondOrderConeCpp::contains(const ArrayRef& input, double atol) const {
    VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in, [&](int device) { return dravik_soc_contains_cuda(in.data, rows_, device, atol); },
        [&] { return in.data[0] >= tail_norm(in.data, rows_) - atol; });
}

OwnedArray SecondOrderConeCpp::dense_scaling(const double* s, const double* z) const {
    SocNtScaling scaling(rows_);
    OwnedArray h = make_owned_matrix(rows_, "SOC NT scaling");
    scaling.write(s, z, h.data());
    return h;
}

const NtMethodFamily& SecondOrderConeCpp::nt_methods() { return kSocNtMethods; }

// The four _into forms: views and same-device checks, then the device entry
// point of the method, or the host loop.
void SecondOrderConeCpp::scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                     uint64_t batch, uint64_t stream, NtMethod method) const {
    const NtBatchViews v = nt_batch_views(s, z, output, rows_, batch);
    run_nt_batch(
        v, rows_, batch, stream, method, kSocNtMethods, [](NtMethod) {},
        [&] { scale_batch_host(v.s.data, v.z.data, v.out.data, rows_, batch); });
}

// The fill writes entries of H itself, built on the calling thread under the
// fill's own message.
void SecondOrderConeCpp::hmatrix_values_into(SparseLayout layout,
                                             const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        SocNtScaling scaling(rows_, "SOC sparse H fill requires strictly interior cone vectors",
                             SocColumnThreads::CallingThread);
        std::vector<double> h(rows_ * rows_);
        scaling.write(s, z, h.data());
        return [h = std::move(h), n = rows_](uint64_t i, uint64_t j) {
            return HmatrixDense{h.data(), n}(i, j);
        };
    };
    fill_hmatrix(layout, args, rows_, rows_, kSocDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
