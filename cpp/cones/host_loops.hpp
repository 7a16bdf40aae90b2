// The inner loops of the host cone operations that run over whole vectors or
// over the columns of a second-order NT scaling, in two builds of one source
// (host_loops_body.inc): one for x86-64 CPUs with AVX2, whose 4-wide vectors
// fill a 256-bit register, and the baseline x86-64 build (SSE2, 2-wide).
//
// Both builds use only lane-wise IEEE operations, each product and sum
// rounded on its own (no fused multiply-add: the module is compiled with
// -ffp-contract=off and the AVX2 build does not enable FMA), and every sum
// adds its terms one at a time in index order; vectors only compute the
// terms, side by side. The two builds therefore give the same bits on the
// same input. The process uses the AVX2 build when the CPU has AVX2.
#pragma once

#include <cstdint>

#include "math/second_order.hpp"

namespace dravik::mirel::cones::cpp {

// What the columns of the second-order scaling matrix H = P(B) P(G) P(A) need:
// A = s^-1/2, B = s^1/2, G = (P(A) z)^1/2 and their quadratic factors.
struct SocColumnInputs {
    const double* a;
    const double* b;
    const double* g;
    SocFactors fa;
    SocFactors fb;
    SocFactors fg;
    uint64_t n;
};

// Columns of H formed side by side, one per vector lane; the scratch of one
// thread holds P(A) e_j and P(G) P(A) e_j for one such group.
constexpr uint64_t kSocColumnGroup = 8;

inline uint64_t soc_column_scratch(uint64_t n) { return 2 * kSocColumnGroup * n; }

// Membership scans test this many entries at a time (2 KiB), so they look
// at their stopping condition once per chunk, not once per entry.
constexpr uint64_t kScanChunk = 256;

struct HostLoops {
    const char* name;  // "avx2" or "baseline"

    // out[i] = x[i] when x[i] > 0, else +0.0 (-0.0 and NaN give +0.0);
    // x may be out.
    void (*clip_nonnegative)(const double* x, double* out, uint64_t n);
    // out[i] = x[i] * k; x may be out.
    void (*scale)(const double* x, double* out, uint64_t n, double k);

    // start + x[0]^2 + x[1]^2 + ... added left to right.
    double (*sum_sq)(const double* x, uint64_t n, double start);
    // The sums of squares of x and of y (each from 0.0, left to right),
    // formed side by side; runs of zero terms cost no additions.
    void (*sum_sq_pair)(const double* x, const double* y, uint64_t n, double* sum_x,
                        double* sum_y);
    // Left-to-right sum of (x[i] < 0 ? x[i]^2 : 0.0) from 0.0: the select is
    // a mask, not a branch.
    double (*negative_sum_sq)(const double* x, uint64_t n);
    // start + sum of (x[i] - x[i] * k)^2, left to right.
    double (*residual_sum_sq)(const double* x, uint64_t n, double k, double start);

    // Whether some entry is below `bound` (x[i] < bound), has an absolute
    // value above it (|x[i]| > bound), or is at most it (x[i] <= bound).
    // NaN entries never count. Every entry of the (short) range is tested.
    bool (*any_below)(const double* x, uint64_t n, double bound);
    bool (*any_abs_above)(const double* x, uint64_t n, double bound);
    bool (*any_at_most)(const double* x, uint64_t n, double bound);

    // Columns begin .. end - 1 of H into h (row-major, n x n), each by the
    // steps of soc_quad_unit_column and soc_quad_apply in their order;
    // scratch holds soc_column_scratch(n) doubles.
    void (*soc_nt_columns)(const SocColumnInputs& in, uint64_t begin, uint64_t end, double* scratch,
                           double* h);
};

// The build this process uses (AVX2 when the CPU has it), chosen once.
const HostLoops& host_loops();

// The build of that name, or nullptr when the name is unknown or the CPU
// cannot run it; tests compare the two builds through it.
const HostLoops* host_loops_named(const char* name);

// Scans n entries in chunks of kScanChunk: returns true at the first chunk
// for which fails(offset, length) is true, or false once stop() is true
// (consulted before each chunk) or when every chunk has passed.
template <class Fails, class Stop>
bool scan_chunks(uint64_t n, Fails&& fails, Stop&& stop) {
    for (uint64_t i = 0; i < n; i += kScanChunk) {
        if (stop()) return false;
        if (fails(i, n - i < kScanChunk ? n - i : kScanChunk)) return true;
    }
    return false;
}

}  // namespace dravik::mirel::cones::cpp
