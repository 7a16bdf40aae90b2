// Non-owning, device-tagged views of the array arguments of one call, and the
// checks that turn a wrongly sized or wrongly placed argument into a message
// before anything is read or written.
#pragma once

#include <cstdint>
#include <string>

#include "core/errors.hpp"

namespace dravik::mirel::cones::cpp {

// DLPack device-type codes of the two memory spaces the system works on.
enum class DeviceKind : int32_t { Cpu = 1, Cuda = 2 };

// What the binding hands over for one array argument: its first element
// (byte offset already applied), its single extent and its DLPack device.
// The device type is kept raw so that unsupported devices can be reported.
struct ArrayRef {
    void* data = nullptr;
    uint64_t size = 0;
    int32_t device_type = 1;
    int32_t device_id = 0;
};

struct VectorView {
    double* data;
    uint64_t size;
    DeviceKind device;
    int32_t device_id;
};

struct IndexView {
    int64_t* data;
    uint64_t size;
    DeviceKind device;
    int32_t device_id;
};

// Each view builder checks, in this order: the device type (name + " must
// be on CPU or CUDA"), then the alignment of a non-empty array's data
// (name + " must be 8-byte aligned"); checked_vector_view checks the length
// before both.
void check_length(uint64_t actual, uint64_t expected, const char* name);
VectorView make_vector_view(const ArrayRef& array, const char* name);
VectorView checked_vector_view(const ArrayRef& array, uint64_t expected, const char* name);
IndexView make_index_view(const ArrayRef& array, const char* name);

inline bool is_cuda(const VectorView& v) { return v.device == DeviceKind::Cuda; }
inline bool is_cuda(const IndexView& v) { return v.device == DeviceKind::Cuda; }

template <class A, class B>
bool same_device(const A& a, const B& b) {
    return a.device == b.device && a.device_id == b.device_id;
}

void require_same_device(const VectorView& input, const VectorView& output);
void require_same_input_device(const VectorView& a, const VectorView& b);
// The two index arrays of a sparse fill, first then second, on the device
// of the cone's vectors.
void require_same_index_device(const IndexView& first, const IndexView& second,
                               const VectorView& cone);

// Host-only dense arguments: the usual length and device checks, then a
// refusal of CUDA memory with the message of the helper that needs the host.
VectorView dense_input_view(const ArrayRef& array, uint64_t length, const char* name);
VectorView dense_output_view(const ArrayRef& array, uint64_t length, const char* name);

// The view sets most operations start with, each checked in parameter order
// (length before device per argument), then the same-device checks.
struct InOutViews {
    VectorView in;
    VectorView out;
};
// input and output of `length` entries, on one device.
InOutViews in_out_views(const ArrayRef& input, const ArrayRef& output, uint64_t length);

struct NtBatchViews {
    VectorView s;
    VectorView z;
    VectorView out;
};
// s and z of rows * batch entries and output of rows^2 * batch; s and z on
// one device, then output on the device of s.
NtBatchViews nt_batch_views(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                            uint64_t rows, uint64_t batch);

struct DensePair {
    VectorView s;
    VectorView z;
};
// s then z as dense host inputs of `length` entries.
DensePair dense_pair_views(const ArrayRef& s, const ArrayRef& z, uint64_t length);

// The two layouts of a caller's sparse matrix that the Hessian fills write
// into: CSR (indptr, indices) and COO (row_indices, col_indices).
enum class SparseLayout { Csr, Coo };

// The arguments of one sparse Hessian fill as the binding hands them over.
struct SparseFillArgs {
    ArrayRef s;
    ArrayRef z;
    ArrayRef first_index;   // indptr (CSR) or row_indices (COO)
    ArrayRef second_index;  // indices (CSR) or col_indices (COO)
    ArrayRef values;
    uint64_t row_offset;  // the cone's first row and column in the caller's matrix
    uint64_t stream;
};

struct SparseFillViews {
    VectorView s;
    VectorView z;
    IndexView first;
    IndexView second;
    VectorView values;
};
// s and z of `rows` entries; the two index arrays (device only); values as
// long as indices (CSR) or row_indices (COO); COO col_indices as long as
// row_indices; then s and z on one device, values on the device of s, and
// the first and then the second index array on that device too.
SparseFillViews sparse_fill_views(SparseLayout layout, const SparseFillArgs& args, uint64_t rows);

}  // namespace dravik::mirel::cones::cpp
