// How the PSD NT scaling entry points choose their work for (order, batch),
// order being the matrix order: the default method rule, and for each entry
// point the route it takes after device selection, with its size checks in
// their order. Plain C++, so that the rules and their messages are testable
// without a device.
#pragma once

#include <cstddef>
#include <string>

#include "core/errors.hpp"
#include "math/nt_method_rules.hpp"

namespace dravik::cuda {

constexpr size_t kPsdCustomMaxOrder = 32;  // the custom kernels' private 32 x 32 arrays
// Every NT scaling and congruence function; the library path by default
// from this batch, and from this order for any batch (the default method
// rule).
constexpr size_t kPsdMaxOrder = mirel::cones::cpp::kPsdCublasMaxOrder;
constexpr size_t kPsdLibraryMinBatch = mirel::cones::cpp::kPsdCublasMinBatch;
constexpr size_t kPsdLibraryMinOrder = mirel::cones::cpp::kPsdCublasMinOrder;

// The default method rule, shared with the build without CUDA:
// "analytic", "cublas" or "custom".
inline const char* psd_nt_default_method(size_t order, size_t batch) {
    return mirel::cones::cpp::psd_nt_scaling_default_method(order, batch);
}

// The four entry points: the batch by the default rule, the batch forced
// onto the custom kernels or onto the library path, and the congruence
// output (dravik_psd_nt_scaling_w_cuda).
enum class PsdNtEntry { Batch, Custom, Cublas, Congruence };

// What an entry point runs: nothing (a zero count), a closed-form kernel
// for order 1 or 2, the custom kernels, or the library path.
enum class PsdNtRoute { Nothing, Order1, Order2, Custom, Library };

[[noreturn]] inline void psd_order_limit(size_t limit) {
    mirel::cones::cpp::fail("CUDA PSD NT scaling currently supports dim <= " +
                            std::to_string(limit));
}

// The checks run in this order: a zero batch (or order) returns before any
// size check; then the entry point's order limit (32 for the custom entry,
// 128 for the others); for the congruence output, order >= 3; then the
// method, where the custom kernels refuse orders above 32 (out of reach
// here, since the rule sends every such order to the library path, but kept
// as their own limit).
inline PsdNtRoute psd_nt_route(PsdNtEntry entry, size_t order, size_t batch) {
    if (batch == 0 || order == 0) return PsdNtRoute::Nothing;
    const size_t limit = entry == PsdNtEntry::Custom ? kPsdCustomMaxOrder : kPsdMaxOrder;
    if (order > limit) psd_order_limit(limit);
    if (entry == PsdNtEntry::Congruence) {
        if (order < 3) mirel::cones::cpp::fail("CUDA PSD W output is only used for dim >= 3");
    } else if (order <= 2) {
        return order == 1 ? PsdNtRoute::Order1 : PsdNtRoute::Order2;
    }
    const bool library = entry == PsdNtEntry::Cublas ||
                         (entry != PsdNtEntry::Custom &&
                          (batch >= kPsdLibraryMinBatch || order >= kPsdLibraryMinOrder));
    if (library) return PsdNtRoute::Library;
    if (order > kPsdCustomMaxOrder) psd_order_limit(kPsdCustomMaxOrder);
    return PsdNtRoute::Custom;
}

}  // namespace dravik::cuda
