// The largest entry of a short run of doubles and its first position, as a
// left-to-right scan with a strict comparison would find it (NaN never
// wins), but without a hard-to-predict branch per element: the maximum is
// taken first (two-wide SSE2 lanes where available; maxima are exact, so
// splitting into lanes changes nothing), then the first entry equal to it.
// Abs = true compares magnitudes |x[k]|.
#pragma once

#include <cmath>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace dravik::mirel::cones::cpp {

struct Peak {
    double value;  // 0 when no entry is positive
    uint64_t at;   // count when the value is 0
};

template <bool Abs>
inline double peak_term(double v) {
    return Abs ? std::fabs(v) : v;
}

#if defined(__SSE2__)

template <bool Abs>
inline __m128d peak_terms(const double* x) {
    const __m128d v = _mm_loadu_pd(x);
    if (!Abs) return v;
    return _mm_and_pd(v, _mm_castsi128_pd(_mm_set1_epi64x(0x7fffffffffffffffLL)));
}

// Largest term over k < count, 0 when none is positive. _mm_max_pd(x, m)
// keeps m when x is NaN.
template <bool Abs>
inline double peak_value(const double* x, uint64_t count) {
    __m128d m0 = _mm_setzero_pd();
    __m128d m1 = _mm_setzero_pd();
    uint64_t k = 0;
    for (; k + 4 <= count; k += 4) {
        m0 = _mm_max_pd(peak_terms<Abs>(x + k), m0);
        m1 = _mm_max_pd(peak_terms<Abs>(x + k + 2), m1);
    }
    const __m128d m2 = _mm_max_pd(m0, m1);
    double m = _mm_cvtsd_f64(_mm_max_sd(_mm_unpackhi_pd(m2, m2), m2));
    for (; k < count; ++k) {
        const double v = peak_term<Abs>(x[k]);
        m = v > m ? v : m;
    }
    return m;
}

// First k < count whose term equals m (m must occur).
template <bool Abs>
inline uint64_t first_at(const double* x, uint64_t count, double m) {
    const __m128d target = _mm_set1_pd(m);
    uint64_t k = 0;
    for (; k + 4 <= count; k += 4) {
        const int hits = _mm_movemask_pd(_mm_cmpeq_pd(peak_terms<Abs>(x + k), target)) |
                         (_mm_movemask_pd(_mm_cmpeq_pd(peak_terms<Abs>(x + k + 2), target)) << 2);
        if (hits != 0) return k + static_cast<uint64_t>(__builtin_ctz(hits));
    }
    while (peak_term<Abs>(x[k]) != m) ++k;
    return k;
}

#else

template <bool Abs>
inline double peak_value(const double* x, uint64_t count) {
    double m = 0.0;
    for (uint64_t k = 0; k < count; ++k) {
        const double v = peak_term<Abs>(x[k]);
        m = v > m ? v : m;
    }
    return m;
}

template <bool Abs>
inline uint64_t first_at(const double* x, uint64_t, double m) {
    uint64_t k = 0;
    while (peak_term<Abs>(x[k]) != m) ++k;
    return k;
}

#endif

template <bool Abs>
inline Peak peak_of(const double* x, uint64_t count) {
    const double m = peak_value<Abs>(x, count);
    if (!(m > 0.0)) return {0.0, count};
    return {m, first_at<Abs>(x, count, m)};
}

}  // namespace dravik::mirel::cones::cpp
