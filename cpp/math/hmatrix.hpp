// The H(i, j) evaluators of the documented sparse Hessian fills, shared by
// the host frame and the fill kernels (the traversal is math/sparse_fill.hpp):
// the evaluators of the cones whose entries come straight from s and z (zero,
// nonnegative, exponential), from one prepared dense matrix (second-order
// W, the small PSD operators) or from the PSD scaling point W. Local
// indices i, j run over the block's rows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "math/exponential.hpp"
#include "math/host_device.hpp"
#include "math/psd_nt.hpp"

namespace dravik::mirel::cones::cpp {

// The cones whose entries the direct fill computes from s and z alone; the
// value is the `kind` argument of the direct kernels.
enum HmatrixDirectKind : int {
    kHmatrixZero = 0,         // the identity; s and z are not read (may be null)
    kHmatrixNonnegative = 1,  // diag(z / s)
    kHmatrixExponential = 2,  // block-diagonal rank-two maps of the 3-blocks
};

// H(i, j) of the exponential cone with i and j in the same 3-block k: entry
// (i mod 3, j mod 3) of the rank-two map taking s-block k onto z-block k,
// grouped as the dense builder groups it (no norm check, no interior test).
DRAVIK_HD inline double hmatrix_exp_block_entry(const double* s, const double* z, size_t i,
                                                size_t j) {
    const size_t corner = i - i % 3;
    const ExpScalingBlock m = exp_scaling_block(s + corner, z + corner);
    return m.entry(static_cast<unsigned>(i % 3), static_cast<unsigned>(j % 3));
}

// H(i, j) of the direct cones.
struct HmatrixDirect {
    int kind;
    const double* s;
    const double* z;

    DRAVIK_HD double operator()(size_t i, size_t j) const {
        switch (kind) {
            case kHmatrixNonnegative:
                return i == j ? z[i] / s[i] : 0.0;
            case kHmatrixExponential:
                return i / 3 == j / 3 ? hmatrix_exp_block_entry(s, z, i, j) : 0.0;
            case kHmatrixZero:
            default:
                return i == j ? 1.0 : 0.0;
        }
    }
};

// H(i, j) read from a row-major rows x rows matrix.
struct HmatrixDense {
    const double* block;
    size_t rows;

    DRAVIK_HD double operator()(size_t i, size_t j) const { return block[i * rows + j]; }
};

// H(i, j) of a PSD cone of matrix order n: the svec-space entry of
// X -> W X W at positions i and j, from the row-major n x n W. The rows x
// rows block is never formed.
struct HmatrixPsdW {
    const double* w;
    size_t n;

    DRAVIK_HD double operator()(size_t i, size_t j) const {
        return psd_nt_operator_entry(w, n, i, j);
    }
};

// A single-block evaluator H(i, j) seen as the traversal's value(item, i, j)
// of a grid of one item.
template <class H>
struct OneItem {
    H h;

    struct Row {
        const H& h;
        size_t i;
        DRAVIK_HD double operator()(size_t j) const { return h(i, j); }
    };
    DRAVIK_HD Row row(size_t, size_t i) const { return {h, i}; }
};

template <class H>
DRAVIK_HD OneItem<H> one_item(const H& h) {
    return OneItem<H>{h};
}

}  // namespace dravik::mirel::cones::cpp
