#include "cones/jacobi_eigh.hpp"

#include <cmath>

#include "cones/argmax_scan.hpp"
#include "math/jacobi.hpp"

namespace dravik::mirel::cones::cpp {

namespace {

using Pivot = JacobiPivot;
using Rotation = JacobiRotation;

// A <- R A R^T: rows p and q first, then columns p and q of the result.
// The search sees each row above q right after its upper-triangle entries
// in columns p and q changed, while they are at hand.
template <class Search>
void rotate_matrix(double* a, uint64_t n, const Rotation& r, Search& search) {
    jacobi_rotate_pair(a + r.p * n, a + r.q * n, n, r.c, r.s);
    uint64_t k = 0;
    for (; k < r.p; ++k) search.columns_pq_changed(k, jacobi_rotate_columns(a, n, k, r), r);
    jacobi_rotate_columns(a, n, k++, r);
    for (; k < r.q; ++k) search.column_q_changed(k, jacobi_rotate_columns(a, n, k, r), r);
    for (; k < n; ++k) jacobi_rotate_columns(a, n, k, r);
}

// Pivot search from per-row maxima of the upper triangle. For row r, max_[r]
// is the largest |A[r][j]| over j > r (NaN ignored, 0 when none is positive)
// and arg_[r] the first j attaining it (n when the maximum is 0). The first
// row holding the largest of these maxima, and in it column arg_, is the
// entry a scan of the whole triangle in row-major order with a strict
// comparison finds.
//
// A rotation of (p, q), p < q, changes every entry of rows p and q, and in
// every other row r the entries (r, p) and (r, q). Of those, the upper
// triangle holds (r, p) for r < p and (r, q) for r < q. So rows p and q are
// rescanned, rows r < q fold in their one or two new entries, and rows
// r > q keep their maxima. A row whose maximum sat at a changed entry that
// shrank (or became NaN) is rescanned, since its new maximum may be
// anywhere.
class RowMaxima {
public:
    RowMaxima(const double* a, uint64_t n) : a_(a), n_(n), max_(n, 0.0), arg_(n, n) {
        for (uint64_t r = 0; r + 1 < n; ++r) rescan(r);
    }

    Pivot largest() const {
        const Peak best = peak_of<false>(max_.data(), n_ - 1);
        if (!(best.value > 0.0)) return {0.0, 0, 1};
        return {best.value, best.at, arg_[best.at]};
    }

    // Row r < p, after its entries in columns p and q changed.
    void columns_pq_changed(uint64_t r, const double* row, const Rotation& rot) {
        const double vp = std::fabs(row[rot.p]);
        const double vq = std::fabs(row[rot.q]);
        const double m = max_[r];
        const uint64_t at = arg_[r];
        // The usual case, with one branch: the maximum sits elsewhere and
        // both new values stay below it.
        if ((at != rot.p) & (at != rot.q) & (vp < m) & (vq < m)) return;
        if (lost_max(r, rot.p, vp) || lost_max(r, rot.q, vq)) {
            rescan(r);
            return;
        }
        fold(r, rot.p, vp);
        fold(r, rot.q, vq);
    }

    // Row p < r < q, after its entry in column q changed.
    void column_q_changed(uint64_t r, const double* row, const Rotation& rot) {
        const double v = std::fabs(row[rot.q]);
        if ((arg_[r] != rot.q) & (v < max_[r])) return;
        if (lost_max(r, rot.q, v)) {
            rescan(r);
            return;
        }
        fold(r, rot.q, v);
    }

    // Rows p and q, once the whole rotation is done.
    void rotated(const Rotation& rot) {
        rescan(rot.p);
        if (rot.q + 1 < n_) rescan(rot.q);
    }

private:
    void rescan(uint64_t r) {
        const Peak best = peak_of<true>(a_ + r * n_ + r + 1, n_ - r - 1);
        max_[r] = best.value;
        arg_[r] = r + 1 + best.at;
    }

    // True when row r's maximum sat at column col and its new value v no
    // longer reaches it.
    bool lost_max(uint64_t r, uint64_t col, double v) const {
        return arg_[r] == col && !(v >= max_[r]);
    }

    // Folds the new value v at column col into row r's maximum, ties going
    // to the smaller column. Valid once no changed entry lost the maximum.
    void fold(uint64_t r, uint64_t col, double v) {
        if (v > max_[r] || (v == max_[r] && v > 0.0 && col < arg_[r])) {
            max_[r] = v;
            arg_[r] = col;
        }
    }

    const double* a_;
    uint64_t n_;
    std::vector<double> max_;
    std::vector<uint64_t> arg_;
};

// V as the transpose of V^T.
void transpose_into(const std::vector<double>& vt, std::vector<double>& v, uint64_t n) {
    v.resize(n * n);
    for (uint64_t i = 0; i < n; ++i) {
        for (uint64_t j = 0; j < n; ++j) v[i * n + j] = vt[j * n + i];
    }
}

}  // namespace

void jacobi_eigh(std::vector<double>& a_store, std::vector<double>& v, uint64_t n) {
    // The eigenvectors are kept as rows of V^T, so that each rotation
    // updates two contiguous rows; V is its transpose at the end.
    std::vector<double> vt(n * n, 0.0);
    for (uint64_t i = 0; i < n; ++i) vt[i * n + i] = 1.0;
    if (n > 1) {
        double* a = a_store.data();
        RowMaxima search(a, n);
        const uint64_t limit = jacobi_rotation_limit(n);
        for (uint64_t t = 0; t < limit; ++t) {
            const Pivot pivot = search.largest();
            if (pivot.magnitude < kJacobiThreshold) break;
            const Rotation rot = jacobi_rotation(a, n, pivot.p, pivot.q);
            rotate_matrix(a, n, rot, search);
            jacobi_rotate_pair(vt.data() + rot.p * n, vt.data() + rot.q * n, n, rot.c, rot.s);
            search.rotated(rot);
        }
    }
    transpose_into(vt, v, n);
}

void jacobi_eigh_full_scan(std::vector<double>& a, std::vector<double>& v, uint64_t n) {
    std::vector<double> vt(n * n);
    jacobi_eigh_full_scan_into(a.data(), vt.data(), n);
    transpose_into(vt, v, n);
}

}  // namespace dravik::mirel::cones::cpp
