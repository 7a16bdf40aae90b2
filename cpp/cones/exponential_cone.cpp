#include "cones/exponential_cone.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <vector>

#include "cones/frame/dense_builders.hpp"
#include "cones/frame/dispatch.hpp"
#include "cones/frame/parallel.hpp"
#include "cones/frame/sparse_fill.hpp"
#include "cuda/dravik_kit_cuda.h"
#include "math/exponential.hpp"
#include "math/exponential_projection.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

// Projection and violation go parallel above this many blocks; the batch
// scaling above this many (item, block) pairs.
constexpr uint64_t kExpBlockThreshold = 4096;

constexpr const char* kScalingLabel = "exponential scaling";

[[noreturn]] void fail_not_interior() {
    fail(std::string(kScalingLabel) + " requires strictly interior cone vectors");
}

constexpr HmatrixDeviceFills kExpDeviceFills{dravik_exp_hmatrix_csr_cuda,
                                             dravik_exp_hmatrix_coo_cuda};

// The kit's device entry points; the exponential cone has no scaled point,
// factor or Jordan operations.
constexpr KitDeviceFns kExpKitDevice{dravik_exp_identity_cuda,
                                     dravik_exp_max_step_cuda,
                                     dravik_exp_nt_scaling_cuda,
                                     nullptr,
                                     nullptr,
                                     dravik_exp_nt_hessian_cuda,
                                     dravik_exp_nt_hessian_csr_cuda,
                                     dravik_exp_nt_hessian_coo_cuda,
                                     nullptr,
                                     nullptr};

// The sparse fill's own test of a block: the strict interior with exp on the
// raw ratio (an overflow to infinity fails), or the ray y = 0, x < 0, z >= 0
// of the closure. NaN fails.
bool fill_admissible(ExpBlock v) {
    if (v.y > 0.0) return v.z > v.y * std::exp(v.x / v.y);
    return v.y == 0.0 && v.x < 0.0 && v.z >= 0.0;
}

bool interior_pair(const double* s, const double* z) {
    return exp_block_interior(load_exp_block(s)) && exp_block_interior(load_exp_block(z));
}

// Writes the 3 x 3 block for s and z (3 entries each) at `corner`, a matrix
// with row stride n.
void write_scaling_block(const double* s, const double* z, double* corner, uint64_t n) {
    const ExpScalingBlock m = exp_scaling_block(s, z);
    for (unsigned i = 0; i < 3; ++i) {
        for (unsigned j = 0; j < 3; ++j) corner[i * n + j] = m.batch_entry(i, j);
    }
}

// Host batch: every block of every item after its interior test, the team
// splitting the (item, block) pairs p = b * blocks + k. A thread stops at its
// first non-interior pair and records it; the error is raised after the join.
void scale_batch_host(const double* sd, const double* zd, double* o, uint64_t blocks,
                      uint64_t batch) {
    const uint64_t n = 3 * blocks;
    std::fill(o, o + n * n * batch, 0.0);
    std::atomic<bool> failed{false};
    parallel_blocks(batch * blocks, kExpBlockThreshold, [&](uint64_t begin, uint64_t end) {
        for (uint64_t p = begin; p < end; ++p) {
            const uint64_t b = p / blocks;
            const uint64_t k = p % blocks;
            const uint64_t offset = b * n + 3 * k;
            if (!interior_pair(sd + offset, zd + offset)) {
                failed.store(true, std::memory_order_relaxed);
                return;
            }
            write_scaling_block(sd + offset, zd + offset, o + b * n * n + 3 * k * n + 3 * k, n);
        }
    });
    if (failed.load()) fail_not_interior();
}


}  // namespace

const KitDeviceFns& ExponentialConeCpp::kit_device() { return kExpKitDevice; }

ExponentialConeCpp::ExponentialConeCpp(uint64_t blocks) : blocks_(blocks) {
    if (blocks == 0) fail("exponential cone block count must be positive");
    checked_product(3, blocks, "exponential cone", "3 * blocks");
}

void ExponentialConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                                      uint64_t stream) const {
    const uint64_t n = rows();
    const InOutViews io = in_out_views(input, output, n);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_exp_project_cuda(in.data, out.data, blocks_, device, as_stream(stream));
        },
        [&] {
            const double* x = in.data;
            double* o = out.data;
            // Each block is read whole before it is written: input may be output.
            parallel_blocks(blocks_, kExpBlockThreshold, [x, o](uint64_t begin, uint64_t end) {
                for (uint64_t k = begin; k < end; ++k) {
                    store_exp_block(o + 3 * k, exp_project_block(load_exp_block(x + 3 * k)));
                }
            });
        });
}

double ExponentialConeCpp::violation(const ArrayRef& input) const {
    VectorView in = checked_vector_view(input, rows(), "input");
    return run_on(
        in, [&](int device) { return dravik_exp_violation_cuda(in.data, blocks_, device); },
        [&] {
            const double* x = in.data;
            return std::sqrt(parallel_sum(blocks_, kExpBlockThreshold, [x](uint64_t k) {
                return exp_violation_term(load_exp_block(x + 3 * k));
            }));
        });
}

bool ExponentialConeCpp::contains(const ArrayRef& input, double atol) const {
    VectorView in = checked_vector_view(input, rows(), "input");
    return run_on(
        in, [&](int device) { return dravik_exp_contains_cuda(in.data, blocks_, device, atol); },
        [&] {
            for (uint64_t k = 0; k < blocks_; ++k) {
                if (!exp_block_contains(load_exp_block(in.data + 3 * k), atol)) return false;
            }
            return true;
        });
}

void ExponentialConeCpp::project_dual_into(const ArrayRef& input, const ArrayRef& output,
                                           uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, rows());
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_exp_project_dual_cuda(in.data, out.data, blocks_, device, as_stream(stream));
        },
        [&] {
            const double* x = in.data;
            double* o = out.data;
            // Each block is read whole before it is written: input may be output.
            parallel_blocks(blocks_, kExpBlockThreshold, [x, o](uint64_t begin, uint64_t end) {
                for (uint64_t k = begin; k < end; ++k) exp_project_dual_block(x + 3 * k, o + 3 * k);
            });
        });
}

double ExponentialConeCpp::violation_dual(const ArrayRef& input) const {
    VectorView in = checked_vector_view(input, rows(), "input");
    return run_on(
        in, [&](int device) { return dravik_exp_violation_dual_cuda(in.data, blocks_, device); },
        [&] {
            const double* x = in.data;
            return std::sqrt(parallel_sum(blocks_, kExpBlockThreshold, [x](uint64_t k) {
                return exp_dual_violation_term(load_exp_block(x + 3 * k));
            }));
        });
}

bool ExponentialConeCpp::contains_dual(const ArrayRef& input, double atol) const {
    VectorView in = checked_vector_view(input, rows(), "input");
    return run_on(
        in,
        [&](int device) { return dravik_exp_contains_dual_cuda(in.data, blocks_, device, atol); },
        [&] {
            for (uint64_t k = 0; k < blocks_; ++k) {
                if (!exp_dual_block_contains(load_exp_block(in.data + 3 * k), atol)) return false;
            }
            return true;
        });
}

// The dense forms: blocks in order, each after the interior tests of its
// s-block and z-block, through the checked rank-two builder.
OwnedArray ExponentialConeCpp::dense_scaling(const double* s, const double* z) const {
    const uint64_t n = rows();
    OwnedArray h = make_owned_matrix(n, kScalingLabel);
    double* values = h.data();
    for (uint64_t k = 0; k < blocks_; ++k) {
        const double* sk = s + 3 * k;
        const double* zk = z + 3 * k;
        if (!exp_block_interior(load_exp_block(sk))) fail_not_interior();
        if (!exp_block_interior(load_exp_block(zk))) fail_not_interior();
        const std::vector<double> block = rank_two_map_values(sk, zk, 3, kScalingLabel);
        for (uint64_t i = 0; i < 3; ++i) {
            for (uint64_t j = 0; j < 3; ++j) values[(3 * k + i) * n + 3 * k + j] = block[3 * i + j];
        }
    }
    return h;
}

void ExponentialConeCpp::nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z,
                                                      const ArrayRef& output, uint64_t batch,
                                                      uint64_t stream) const {
    const uint64_t n = rows();
    const NtBatchViews v = nt_batch_views(s, z, output, n, batch);
    const VectorView &sv = v.s, &zv = v.z, &out = v.out;
    run_on(
        out,
        [&](int device) {
            // The device evaluates the blocks without the interior tests.
            dravik_exp_nt_scaling_batch_cuda(sv.data, zv.data, out.data, blocks_, batch, device,
                                             as_stream(stream));
        },
        [&] { scale_batch_host(sv.data, zv.data, out.data, blocks_, batch); });
}

// Every block tested and its 3 x 3 map prepared (9 values per block) before
// anything is written; entries coupling two blocks are 0.0.
void ExponentialConeCpp::hmatrix_values_into(SparseLayout layout,
                                             const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        std::vector<double> blocks(9 * blocks_);
        for (uint64_t k = 0; k < blocks_; ++k) {
            const double* sk = s + 3 * k;
            const double* zk = z + 3 * k;
            if (!fill_admissible(load_exp_block(sk)) || !fill_admissible(load_exp_block(zk))) {
                fail("exponential sparse H fill requires strictly interior inputs");
            }
            const ExpScalingBlock m = exp_scaling_block(sk, zk);
            for (unsigned i = 0; i < 3; ++i) {
                for (unsigned j = 0; j < 3; ++j) blocks[9 * k + 3 * i + j] = m.entry(i, j);
            }
        }
        return [blocks = std::move(blocks)](uint64_t i, uint64_t j) {
            return i / 3 == j / 3 ? blocks[9 * (i / 3) + 3 * (i % 3) + j % 3] : 0.0;
        };
    };
    fill_hmatrix(layout, args, rows(), rows(), kExpDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp

namespace dravik::mirel::cones::cpp {

// Block by block (the team splits the blocks of all items when there are
// many); a refused block names its item.
void ExponentialConeCpp::gradient_into(const ArrayRef& point, const ArrayRef& output,
                                       uint64_t batch, uint64_t stream, bool dual) const {
    const char* name = dual ? "z" : "x";
    const uint64_t length = kit_length(rows(), batch, "rows * batch");
    const VectorView in = checked_vector_view(point, length, name);
    const VectorView out = checked_vector_view(output, length, "out");
    require_same_device(in, out);
    run_on(
        out,
        [&](int device) {
            (dual ? dravik_exp_barrier_gradient_dual_cuda : dravik_exp_barrier_gradient_cuda)(
                in.data, out.data, blocks_, batch, device, as_stream(stream));
        },
        [&] {
            const ExponentialKit block{1};
            const uint64_t count = blocks_ * batch;
            const ItemsOutcome outcome =
                run_kit_items(count, 3, 0, [&](uint64_t k, double*, double*) {
                    const double* p = in.data + 3 * k;
                    double* o = out.data + 3 * k;
                    return (dual ? block.barrier_gradient_dual(p, o) : block.barrier_gradient(p, o))
                               ? 0
                               : 1;
                });
            if (outcome.first_refused < count) {
                kit_refuse(kit_label(), dual ? "dual barrier gradient" : "barrier gradient", name,
                           outcome.first_refused / blocks_, "is not strictly interior");
            }
        });
}

void ExponentialConeCpp::barrier_gradient_into(const ArrayRef& x, const ArrayRef& output,
                                               uint64_t batch, uint64_t stream) const {
    gradient_into(x, output, batch, stream, false);
}

void ExponentialConeCpp::barrier_gradient_dual_into(const ArrayRef& z, const ArrayRef& output,
                                                    uint64_t batch, uint64_t stream) const {
    gradient_into(z, output, batch, stream, true);
}

double ExponentialConeCpp::max_step_dual(const ArrayRef& x, const ArrayRef& dx, uint64_t batch,
                                         uint64_t stream) const {
    const uint64_t length = kit_length(rows(), batch, "rows * batch");
    const VectorView xv = checked_vector_view(x, length, "x");
    const VectorView dv = checked_vector_view(dx, length, "dx");
    require_same_input_device(xv, dv);
    return run_on(
        xv,
        [&](int device) {
            return dravik_exp_max_step_dual_cuda(xv.data, dv.data, blocks_, batch, device,
                                                 as_stream(stream));
        },
        [&] {
            const ExponentialKit block{1};
            const uint64_t count = blocks_ * batch;
            const ItemsOutcome outcome =
                run_kit_items(count, 3, 0, [&](uint64_t k, double*, double* least) {
                    double alpha = INFINITY;
                    if (!block.max_step_dual(xv.data + 3 * k, dv.data + 3 * k, nullptr, &alpha)) {
                        return 1;
                    }
                    *least = least_of(*least, alpha);
                    return 0;
                });
            if (outcome.first_refused < count) {
                kit_refuse(kit_label(), "max_step_dual", "x", outcome.first_refused / blocks_,
                           "is not in the dual cone");
            }
            return outcome.least;
        });
}

}  // namespace dravik::mirel::cones::cpp
