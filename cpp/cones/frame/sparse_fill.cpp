#include "cones/frame/sparse_fill.hpp"

namespace dravik::mirel::cones::cpp {

void require_csr_indptr_covers(uint64_t indptr_length, uint64_t row_offset, uint64_t rows) {
    // indptr_length >= row_offset + rows + 1, compared without the sum.
    if (!(indptr_length > rows && indptr_length - rows - 1 >= row_offset)) {
        fail("CSR indptr is too short for the requested cone row range");
    }
}

}  // namespace dravik::mirel::cones::cpp
