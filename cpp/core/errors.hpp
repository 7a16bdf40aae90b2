// How the system fails, in one place: a runtime error carrying its message
// (RuntimeError in Python), or a size whose product would wrap 64 bits
// (std::length_error, ValueError in Python). A wrapped size could pass a
// length check and let a loop overrun, so every size product that comes
// from caller-supplied counts goes through checked_product.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace dravik::mirel::cones::cpp {

[[noreturn]] inline void fail(const std::string& message) { throw std::runtime_error(message); }

// a * b, or std::length_error with `what` + " too large: " + `product` +
// " overflows" when the product does not fit in 64 bits.
inline uint64_t checked_product(uint64_t a, uint64_t b, const char* what, const char* product) {
    uint64_t result = 0;
    if (__builtin_mul_overflow(a, b, &result)) {
        throw std::length_error(std::string(what) + " too large: " + product + " overflows");
    }
    return result;
}

}  // namespace dravik::mirel::cones::cpp
