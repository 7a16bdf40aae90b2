#include "cones/second_order_cone.hpp"

#include <cmath>
#include <cstring>

#include "cones/dense.hpp"
#include "cones/dispatch.hpp"
#include "cones/hmatrix_fill.hpp"
#include "cones/math/second_order.hpp"
#include "cones/nt_methods.hpp"
#include "cones/parallel.hpp"
#include "cones/second_order_nt.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

// |x[1..dim-1]|; the sum runs over all dim items (element 0 adds 0) so the
// team decision and the block split are made on dim.
double tail_norm(const double* x, uint64_t dim) {
    return std::sqrt(parallel_sum(dim, kParallelThreshold,
                                  [x](uint64_t i) { return i == 0 ? 0.0 : x[i] * x[i]; }));
}

// Projection onto the cone; `out` may be `x`: element 0 is read before any
// write, and every other element is read just before it is written.
void project_host(const double* x, double* out, uint64_t dim) {
    const SocProjection rule = soc_projection(x[0], tail_norm(x, dim));
    switch (rule.kind) {
        case SocProjectionCase::Inside:
            std::memmove(out, x, dim * sizeof(double));
            return;
        case SocProjectionCase::Polar:
            std::fill(out, out + dim, 0.0);
            return;
        case SocProjectionCase::Between:
            parallel_blocks(dim, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
                for (uint64_t i = begin; i < end; ++i) out[i] = soc_projected_entry(rule, i, x[i]);
            });
            return;
    }
}

constexpr NtMethodFamily kSocNtMethods{
    dravik_soc_nt_scaling_default_method_cuda,
    {dravik_soc_nt_scaling_batch_cuda, dravik_soc_nt_scaling_batch_custom_cuda,
     dravik_soc_nt_scaling_batch_cublas_cuda},
    "SOC cuBLAS NT scaling requires CUDA arrays"};

constexpr HmatrixDeviceFills kSocDeviceFills{dravik_soc_hmatrix_csr_cuda,
                                             dravik_soc_hmatrix_coo_cuda};

// Items in order; a failing item leaves the earlier ones written and itself
// and the later ones untouched.
void scale_batch_host(const double* s, const double* z, double* out, uint64_t n, uint64_t batch) {
    if (batch == 0) return;
    SocNtScaling scaling(n);
    for (uint64_t b = 0; b < batch; ++b) scaling.write(s + b * n, z + b * n, out + b * n * n);
}

}  // namespace

SecondOrderConeCpp::SecondOrderConeCpp(uint64_t dim) : dim_(dim) {
    if (dim == 0) fail("second-order cone dim must be positive");
}

void SecondOrderConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                                      uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, dim_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            dravik_soc_project_cuda(in.data, out.data, dim_, device, as_stream(stream));
        },
        [&] { project_host(in.data, out.data, dim_); });
}

double SecondOrderConeCpp::violation(const ArrayRef& input) const {
    VectorView in = checked_vector_view(input, dim_, "input");
    return run_on(
        in, [&](int device) { return dravik_soc_violation_cuda(in.data, dim_, device); },
        [&] {
            const double* x = in.data;
            std::vector<double> p(dim_, 0.0);
            project_host(x, p.data(), dim_);
            const double* q = p.data();
            return std::sqrt(parallel_sum(dim_, kParallelThreshold, [x, q](uint64_t i) {
                const double r = x[i] - q[i];
                return r * r;
            }));
        });
}

bool SecondOrderConeCpp::contains(const ArrayRef& input, double atol) const {
    VectorView in = checked_vector_view(input, dim_, "input");
    return run_on(
        in, [&](int device) { return dravik_soc_contains_cuda(in.data, dim_, device, atol); },
        [&] { return in.data[0] >= tail_norm(in.data, dim_) - atol; });
}

std::vector<double> SecondOrderConeCpp::nt_scaling_matrix(const ArrayRef& s,
                                                          const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    return soc_nt_scaling_dense(sv.data, zv.data, dim_);
}

OwnedArray SecondOrderConeCpp::nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const {
    const DensePair p = dense_pair_views(s, z, dim_);
    const VectorView &sv = p.s, &zv = p.z;
    return dense_matrix_array(soc_nt_scaling_dense(sv.data, zv.data, dim_), dim_, "SOC NT scaling");
}

const NtMethodFamily& SecondOrderConeCpp::nt_methods() { return kSocNtMethods; }

// The four _into forms: views and same-device checks, then the device entry
// point of the method, or the host loop.
void SecondOrderConeCpp::scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                     uint64_t batch, uint64_t stream, NtMethod method) const {
    const NtBatchViews v = nt_batch_views(s, z, output, dim_, batch);
    run_nt_batch(
        v, dim_, batch, stream, method, kSocNtMethods, [](NtMethod) {},
        [&] { scale_batch_host(v.s.data, v.z.data, v.out.data, dim_, batch); });
}

// The fill writes entries of W itself, built on the calling thread under the
// fill's own message.
void SecondOrderConeCpp::hmatrix_values_into(SparseLayout layout,
                                             const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        SocNtScaling scaling(dim_, "SOC sparse H fill requires strictly interior cone vectors",
                             SocColumnThreads::CallingThread);
        std::vector<double> w(dim_ * dim_);
        scaling.write(s, z, w.data());
        return [w = std::move(w), n = dim_](uint64_t i, uint64_t j) {
            return HmatrixDense{w.data(), n}(i, j);
        };
    };
    fill_hmatrix(layout, args, dim_, dim_, kSocDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
