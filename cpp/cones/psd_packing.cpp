#include "cones/psd_packing.hpp"

#include <algorithm>
#include <vector>

#include "cones/frame/dense_builders.hpp"
#include "cones/frame/dispatch.hpp"
#include "math/svec.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

// Packs from a copy of the matrix, so an output overlapping it is fine.
void pack_from_copy(const double* matrix, uint64_t n, double* x) {
    std::vector<double> scratch(matrix, matrix + n * n);
    svec_pack(scratch.data(), n, x);
}

}  // namespace

void psd_svec_into(const ArrayRef& matrix, const ArrayRef& output, uint64_t order,
                   uint64_t stream) {
    require_psd_order(order);
    VectorView in = checked_vector_view(matrix, order * order, "matrix");
    VectorView out = checked_vector_view(output, svec_length(order), "output");
    require_same_device(in, out);
    run_on(
        out,
        [&](int device) {
            dravik_psd_svec_cuda(in.data, out.data, order, 1, device, as_stream(stream));
        },
        [&] { pack_from_copy(in.data, order, out.data); });
}

void psd_smat_into(const ArrayRef& svec, const ArrayRef& output, uint64_t order, uint64_t stream) {
    require_psd_order(order);
    VectorView in = checked_vector_view(svec, svec_length(order), "svec");
    VectorView out = checked_vector_view(output, order * order, "output");
    require_same_device(in, out);
    run_on(
        out,
        [&](int device) {
            dravik_psd_smat_cuda(in.data, out.data, order, 1, device, as_stream(stream));
        },
        [&] {
            std::vector<double> m = smat_unpack(in.data, order);
            std::copy(m.begin(), m.end(), out.data);
        });
}

OwnedArray psd_svec_array(const ArrayRef& matrix, uint64_t order) {
    require_psd_order(order);
    VectorView in = dense_input_view(matrix, order * order, "matrix");
    std::vector<double> x(svec_length(order), 0.0);
    pack_from_copy(in.data, order, x.data());
    OwnedArray out = make_owned_vector(x.size(), "PSD svec");
    std::copy(x.begin(), x.end(), out.data());
    return out;
}

OwnedArray psd_smat_array(const ArrayRef& svec, uint64_t order) {
    require_psd_order(order);
    VectorView in = dense_input_view(svec, svec_length(order), "svec");
    return dense_matrix_array(smat_unpack(in.data, order), order, "PSD smat");
}

}  // namespace dravik::mirel::cones::cpp
