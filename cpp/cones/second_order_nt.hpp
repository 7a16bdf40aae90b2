// Host NT scaling of one second-order cone: the scaling matrix
// H = P(s^1/2) P(G) P(s^-1/2) with G = (P(s^-1/2) z)^1/2, so that H s = z.
// H is built column by column from the closed-form quadratic
// representations (O(n) per column, O(n^2) in all) and is in general not
// symmetric; it is never symmetrised.
#pragma once

#include <cstdint>
#include <vector>

#include "cones/host_loops.hpp"
#include "math/second_order.hpp"

namespace dravik::mirel::cones::cpp {

// Columns are computed on one thread below this many rows, on the OpenMP
// team from it on; each column is computed by the same steps whichever
// thread takes it, so H does not depend on the team size.
constexpr uint64_t kSocColumnTeamFrom = 256;

// The message of the NT scaling forms when s, z or the intermediate u is not
// strictly interior; the sparse fill passes its own.
constexpr const char* kSocNtNotInterior = "SOC NT scaling requires strictly interior cone vectors";

// Whether the columns may go to the OpenMP team (from kSocColumnTeamFrom on)
// or stay on the calling thread whatever n is (the sparse fills).
enum class SocColumnThreads { TeamForLargeRows, CallingThread };

// The scratch of one cone size, reused across the items of a batch.
class SocNtScaling {
public:
    // `loops` picks the build of the column loops (tests compare builds).
    explicit SocNtScaling(uint64_t n, const char* not_interior = kSocNtNotInterior,
                          SocColumnThreads threads = SocColumnThreads::TeamForLargeRows,
                          const HostLoops& loops = host_loops());

    // Checks s and z (and the intermediate u) for strict interiority, then
    // writes the n x n matrix H row-major into h. A failure throws the
    // not-interior message before h is touched.
    void write(const double* s, const double* z, double* h);

    // Items b = 0 .. batch - 1 in order (s and z at b * n, H at b * n * n),
    // all on one team: every thread forms the working vectors of an item
    // itself (the same bits on every thread) and writes its own columns, so
    // no barrier separates the items. Every thread stops at the first item
    // that fails its interior tests; the items before it are written, it and
    // the later ones untouched, and the message is thrown after the join.
    void write_batch(const double* s, const double* z, double* h, uint64_t batch);

private:
    uint64_t n_;
    const char* not_interior_;
    uint64_t team_threshold_;  // columns run on one thread up to this n
    const HostLoops& loops_;
    std::vector<double> scratch_;  // per thread: A, B, u, G and one column group
};

}  // namespace dravik::mirel::cones::cpp
