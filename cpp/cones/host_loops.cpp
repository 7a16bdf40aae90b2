#include "cones/host_loops.hpp"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "math/nonnegative.hpp"

// The baseline build's 32-byte vectors only live inside its own inlined
// helpers; no function visible outside this file takes or returns one.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace dravik::mirel::cones::cpp {

namespace baseline_build {
namespace {
constexpr const char* kBuildName = "baseline";
#include "cones/host_loops_body.inc"
}  // namespace
}  // namespace baseline_build

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2_build {
namespace {
constexpr const char* kBuildName = "avx2";
#include "cones/host_loops_body.inc"
}  // namespace
}  // namespace avx2_build
#pragma GCC pop_options

namespace {

bool cpu_has_avx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

}  // namespace

const HostLoops& host_loops() {
    static const HostLoops& chosen = cpu_has_avx2() ? avx2_build::kLoops : baseline_build::kLoops;
    return chosen;
}

const HostLoops* host_loops_named(const char* name) {
    if (std::strcmp(name, "baseline") == 0) return &baseline_build::kLoops;
    if (std::strcmp(name, "avx2") == 0 && cpu_has_avx2()) return &avx2_build::kLoops;
    return nullptr;
}

}  // namespace dravik::mirel::cones::cpp
