// Host NT scaling of one second-order cone: W = P(s^1/2) P(G) P(s^-1/2) with
// G = (P(s^-1/2) z)^1/2, so that W s = z. W is built column by column from
// the closed-form quadratic representations (O(n) per column, O(n^2) in
// all) and is in general not symmetric; it is never symmetrised.
#pragma once

#include <cstdint>
#include <vector>

#include "cones/math/second_order.hpp"

namespace dravik::mirel::cones::cpp {

// Columns are computed on one thread below this dimension, on the OpenMP
// team from it on; each column is computed by the same steps whichever
// thread takes it, so W does not depend on the team size.
constexpr uint64_t kSocColumnTeamFrom = 256;

// The message of the NT scaling forms when s, z or the intermediate u is not
// strictly interior; the sparse fill passes its own.
constexpr const char* kSocNtNotInterior = "SOC NT scaling requires strictly interior cone vectors";

// Whether the columns may go to the OpenMP team (from kSocColumnTeamFrom on)
// or stay on the calling thread whatever n is (the sparse fills).
enum class SocColumnThreads { TeamForLargeDims, CallingThread };

// The working vectors of one dimension, reused across the items of a batch.
class SocNtScaling {
public:
    explicit SocNtScaling(uint64_t n, const char* not_interior = kSocNtNotInterior,
                          SocColumnThreads threads = SocColumnThreads::TeamForLargeDims);

    // Checks s and z (and the intermediate u) for strict interiority, then
    // writes the n x n matrix W row-major into w. A failure throws the
    // not-interior message before w is touched.
    void write(const double* s, const double* z, double* w);

private:
    // Columns are formed in groups of this many, side by side.
    static constexpr int kColumnGroup = 4;

    void prepare(const double* s, const double* z);
    void write_columns(uint64_t begin, uint64_t end, double* scratch, double* w) const;
    template <int L>
    void write_column_group(uint64_t j0, double* p, double* v, double* w) const;

    uint64_t n_;
    const char* not_interior_;
    uint64_t team_threshold_;  // columns run on one thread up to this n
    std::vector<double> a_;    // s^-1/2
    std::vector<double> b_;    // s^1/2
    std::vector<double> u_;    // P(s^-1/2) z
    std::vector<double> g_;    // u^1/2
    SocFactors fa_{}, fb_{}, fg_{};
    std::vector<double> scratch_;  // per thread: p and v of one column group
};

// W of one pair in a new n * n vector, row-major.
std::vector<double> soc_nt_scaling_dense(const double* s, const double* z, uint64_t n);

}  // namespace dravik::mirel::cones::cpp
