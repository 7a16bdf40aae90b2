// What a solver-kit operation on one item reports: Ok, or which of its two
// inputs lies outside the set the operation needs (for the NT scaling: s
// outside the cone's interior, z outside the dual cone's interior).
#pragma once

namespace dravik::mirel::cones::cpp {

enum class KitStatus : int { Ok = 0, FirstNotInterior = 1, SecondNotInterior = 2 };

}  // namespace dravik::mirel::cones::cpp
