#include "cones/psd_cone.hpp"

#include <cmath>
#include <vector>

#include "cones/frame/dispatch.hpp"
#include "cones/frame/nt_methods.hpp"
#include "cones/frame/sparse_fill.hpp"
#include "cones/jacobi_eigh.hpp"
#include "cones/psd_nt_host.hpp"
#include "math/psd_nt.hpp"
#include "math/svec.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

// The device path has closed forms for 2 x 2 matrices only.
constexpr uint64_t kDeviceOrder = 2;

void require_device_order(uint64_t order, const char* message) {
    if (order != kDeviceOrder) fail(message);
}

constexpr NtMethodFamily kPsdNtMethods{
    dravik_psd_nt_scaling_default_method_cuda,
    {dravik_psd_nt_scaling_batch_cuda, dravik_psd_nt_scaling_batch_custom_cuda,
     dravik_psd_nt_scaling_batch_cublas_cuda},
    "PSD cuBLAS NT scaling requires CUDA arrays"};

constexpr HmatrixDeviceFills kPsdDeviceFills{dravik_psd_hmatrix_csr_cuda,
                                             dravik_psd_hmatrix_coo_cuda};

// The custom kernels hold their matrices in private arrays of this order.
void require_custom_order(uint64_t order, NtMethod method) {
    if (method == NtMethod::Custom && order > kPsdPrivateOrder) {
        fail("CUDA PSD custom NT scaling currently supports dim <= 32");
    }
}

}  // namespace

PsdConeCpp::PsdConeCpp(uint64_t order) : order_(order), rows_(svec_length(order)) {
    if (order == 0) fail("PSD cone dim must be positive");
    require_psd_order(order);
}

void psd_project_host(const double* x, double* out, uint64_t n) {
    if (n == 1) {
        out[0] = x[0] < 0.0 ? 0.0 : x[0];
        return;
    }
    std::vector<double> a = smat_unpack(x, n);
    std::vector<double> v;
    jacobi_eigh(a, v, n);
    // P = sum over k of max(lambda_k, 0) v_k v_k^T, eigenvalue by eigenvalue.
    std::vector<double> p(n * n, 0.0);
    for (uint64_t k = 0; k < n; ++k) {
        double lambda = a[k * n + k];
        if (lambda < 0.0) lambda = 0.0;
        for (uint64_t i = 0; i < n; ++i) {
            const double scaled = v[i * n + k] * lambda;
            double* row = p.data() + i * n;
            for (uint64_t j = 0; j < n; ++j) row[j] = scaled * v[j * n + k] + row[j];
        }
    }
    svec_pack(p.data(), n, out);
}

double psd_violation_host(const double* x, uint64_t n) {
    if (n == 1) return x[0] > 0.0 ? 0.0 : -x[0];
    std::vector<double> a = smat_unpack(x, n);
    std::vector<double> v;
    jacobi_eigh(a, v, n);
    double sum = 0.0;
    for (uint64_t k = 0; k < n; ++k) {
        const double lambda = a[k * n + k];
        if (lambda < 0.0) sum += lambda * lambda;
    }
    return std::sqrt(sum);
}

void PsdConeCpp::project_into(const ArrayRef& input, const ArrayRef& output,
                              uint64_t stream) const {
    const InOutViews io = in_out_views(input, output, rows_);
    const VectorView &in = io.in, &out = io.out;
    run_on(
        in,
        [&](int device) {
            require_device_order(order_, "CUDA PSD projection currently supports dim=2");
            dravik_psd2_project_cuda(in.data, out.data, device, as_stream(stream));
        },
        [&] { psd_project_host(in.data, out.data, order_); });
}

double PsdConeCpp::violation(const ArrayRef& input) const {
    VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in,
        [&](int device) {
            require_device_order(order_, "CUDA PSD violation currently supports dim=2");
            return dravik_psd2_violation_cuda(in.data, device);
        },
        [&] { return psd_violation_host(in.data, order_); });
}

bool PsdConeCpp::contains(const ArrayRef& input, double atol) const {
    VectorView in = checked_vector_view(input, rows_, "input");
    return run_on(
        in,
        [&](int device) {
            require_device_order(order_, "CUDA PSD membership currently supports dim=2");
            return dravik_psd2_contains_cuda(in.data, device, atol);
        },
        [&] { return atol >= psd_violation_host(in.data, order_); });
}

// R by the general path (its "matrices" message for every order), then H
// entry by entry from it.
OwnedArray PsdConeCpp::dense_scaling(const double* s, const double* z) const {
    const std::vector<double> r = psd_nt_congruence(s, z, order_);
    OwnedArray h = make_owned_matrix(rows_, "PSD NT scaling");
    psd_nt_operator_from_congruence(r.data(), order_, h.data());
    return h;
}

const NtMethodFamily& PsdConeCpp::nt_methods() { return kPsdNtMethods; }

// The batch forms: views (svec lengths) and same-device checks, then the
// device entry point of the method with the matrix order, or the host's
// batched path (the custom form on host arrays is the default one).
void PsdConeCpp::scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                             uint64_t batch, uint64_t stream, NtMethod method) const {
    const NtBatchViews v = nt_batch_views(s, z, output, rows_, batch);
    run_nt_batch(
        v, order_, batch, stream, method, kPsdNtMethods,
        [this](NtMethod m) { require_custom_order(order_, m); },
        [&] { psd_nt_scaling_batch_host(v.s.data, v.z.data, v.out.data, order_, batch); });
}

// The fill prepares the congruence matrix R (order x order, the general path
// and its "matrices" message) and evaluates each written entry from it; the
// device entry points take the matrix order.
void PsdConeCpp::hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const {
    auto prepare = [this](const double* s, const double* z) {
        return [r = psd_nt_congruence(s, z, order_), n = order_](uint64_t i, uint64_t j) {
            return HmatrixPsdW{r.data(), n}(i, j);
        };
    };
    fill_hmatrix(layout, args, rows_, order_, kPsdDeviceFills, prepare);
}

}  // namespace dravik::mirel::cones::cpp
