// Position of entry e of a batch of D x D row-major matrices: batch item
// e / D^2, row (e / D) mod D, column e mod D. Shared by the entry-wise NT
// scaling kernels of the zero, nonnegative and exponential cones.
#pragma once

#include <cstddef>

#include "math/host_device.hpp"

namespace dravik::cuda {

struct BatchEntry {
    size_t item;
    size_t row;
    size_t col;
};

DRAVIK_HD inline BatchEntry batch_entry(size_t e, size_t d) {
    return {e / (d * d), (e / d) % d, e % d};
}

}  // namespace dravik::cuda
