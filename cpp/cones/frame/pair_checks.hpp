// Entry-by-entry tests of an input pair (s, z) or (a, b): the first index
// whose pair fails the test raises the caller's message. The NT scaling paths
// and the sparse fills make the same tests under different messages.
#pragma once

#include <cstdint>

#include "core/errors.hpp"
#include "math/positivity.hpp"

namespace dravik::mirel::cones::cpp {

// `message` is a const char* or a std::string; it becomes the error's text.
template <class PassFn, class Message>
void require_pairs(const double* a, const double* b, uint64_t n, PassFn pass,
                   const Message& message) {
    for (uint64_t i = 0; i < n; ++i) {
        if (!pass(a[i]) || !pass(b[i])) fail(message);
    }
}

template <class Message>
void require_positive_pairs(const double* a, const double* b, uint64_t n, const Message& message) {
    require_pairs(a, b, n, positive_or_nan, message);
}

}  // namespace dravik::mirel::cones::cpp
