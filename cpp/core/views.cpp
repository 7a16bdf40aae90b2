#include "core/views.hpp"

#include <cstdint>
#include <stdexcept>


namespace dravik::mirel::cones::cpp {

void check_length(uint64_t actual, uint64_t expected, const char* name) {
    if (actual != expected) {
        fail(std::string(name) + " expected " + std::to_string(expected) + " entries, got " +
             std::to_string(actual));
    }
}

static DeviceKind supported_device(int32_t device_type, const char* name) {
    if (device_type == static_cast<int32_t>(DeviceKind::Cpu)) return DeviceKind::Cpu;
    if (device_type == static_cast<int32_t>(DeviceKind::Cuda)) return DeviceKind::Cuda;
    fail(std::string(name) + " must be on CPU or CUDA");
}

// Elements are read and written as whole float64 / int64 values, so a data
// pointer off an 8-byte boundary would mean misaligned accesses (undefined
// behaviour on the host, a fault in a kernel). An empty array's pointer is
// never dereferenced (every loop and device call returns at once on zero
// elements), so it is accepted wherever it points.
constexpr uintptr_t kElementAlignment = 8;
static_assert(alignof(double) == kElementAlignment && alignof(int64_t) == kElementAlignment);

static void require_aligned(const ArrayRef& array, const char* name) {
    if (array.size != 0 && reinterpret_cast<uintptr_t>(array.data) % kElementAlignment != 0) {
        fail(std::string(name) + " must be 8-byte aligned");
    }
}

VectorView make_vector_view(const ArrayRef& array, const char* name) {
    DeviceKind device = supported_device(array.device_type, name);
    require_aligned(array, name);
    return {static_cast<double*>(array.data), array.size, device, array.device_id};
}

VectorView checked_vector_view(const ArrayRef& array, uint64_t expected, const char* name) {
    check_length(array.size, expected, name);
    return make_vector_view(array, name);
}

IndexView make_index_view(const ArrayRef& array, const char* name) {
    DeviceKind device = supported_device(array.device_type, name);
    require_aligned(array, name);
    return {static_cast<int64_t*>(array.data), array.size, device, array.device_id};
}

void require_same_device(const VectorView& input, const VectorView& output) {
    if (!same_device(input, output)) fail("input and output must live on the same device");
}

void require_same_input_device(const VectorView& a, const VectorView& b) {
    if (!same_device(a, b)) fail("input vectors must live on the same device");
}

void require_same_index_device(const IndexView& first, const IndexView& second,
                               const VectorView& cone) {
    if (!same_device(first, cone)) {
        fail("first sparse index must live on the same device as the cone vectors");
    }
    if (!same_device(second, cone)) {
        fail("second sparse index must live on the same device as the cone vectors");
    }
}

VectorView dense_input_view(const ArrayRef& array, uint64_t length, const char* name) {
    VectorView view = checked_vector_view(array, length, name);
    if (is_cuda(view)) fail(std::string(name) + " must be a CPU vector for dense NT scaling");
    return view;
}

VectorView dense_output_view(const ArrayRef& array, uint64_t length, const char* name) {
    VectorView view = checked_vector_view(array, length, name);
    if (is_cuda(view)) fail(std::string(name) + " must be a CPU vector for dense helper output");
    return view;
}

InOutViews in_out_views(const ArrayRef& input, const ArrayRef& output, uint64_t length) {
    VectorView in = checked_vector_view(input, length, "input");
    VectorView out = checked_vector_view(output, length, "output");
    require_same_device(in, out);
    return {in, out};
}

NtBatchViews nt_batch_views(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                            uint64_t rows, uint64_t batch) {
    // Each length is checked for overflow just before its argument is viewed,
    // so the first failing argument in parameter order is still the one named.
    const char* what = "NT scaling batch";
    const uint64_t vector_length = checked_product(rows, batch, what, "rows * batch");
    VectorView sv = checked_vector_view(s, vector_length, "s");
    VectorView zv = checked_vector_view(z, vector_length, "z");
    const uint64_t output_length =
        checked_product(checked_product(rows, rows, what, "rows * rows"), batch, what,
                        "rows * rows * batch");
    VectorView out = checked_vector_view(output, output_length, "output");
    require_same_input_device(sv, zv);
    require_same_device(sv, out);
    return {sv, zv, out};
}

DensePair dense_pair_views(const ArrayRef& s, const ArrayRef& z, uint64_t length) {
    VectorView sv = dense_input_view(s, length, "s");
    VectorView zv = dense_input_view(z, length, "z");
    return {sv, zv};
}

SparseFillViews sparse_fill_views(SparseLayout layout, const SparseFillArgs& args,
                                  uint64_t rows) {
    const bool csr = layout == SparseLayout::Csr;
    VectorView sv = checked_vector_view(args.s, rows, "s");
    VectorView zv = checked_vector_view(args.z, rows, "z");
    IndexView first = make_index_view(args.first_index, csr ? "indptr" : "row_indices");
    IndexView second = make_index_view(args.second_index, csr ? "indices" : "col_indices");
    VectorView values = checked_vector_view(args.values, csr ? second.size : first.size, "values");
    if (!csr) check_length(second.size, first.size, "COO col_indices");
    require_same_input_device(sv, zv);
    require_same_device(sv, values);
    require_same_index_device(first, second, sv);
    return {sv, zv, first, second, values};
}

}  // namespace dravik::mirel::cones::cpp
