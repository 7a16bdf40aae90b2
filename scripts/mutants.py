#!/usr/bin/env python3
"""Mutation check of the host suite: deliberate breakages of the host C++,
each built CPU-only in a private copy of the source tree and run against the
host tests. A mutant is killed when a test fails, stillborn when it does not
build (not a kill), and survives otherwise; a survivor is a fault the suite
would let through.

    scripts/mutants.py [--python PY] [--deps DIR] [--build DIR] [--limit S] [NAME ...]

NAME picks mutants by name (default: all); --list prints them. Every
snippet must occur exactly once in its file, checked before anything is
built: when code moves, the runner names the mutant to update. The copy
(BUILD/src) and its build folder (BUILD/build) are kept between runs, so
later runs rebuild incrementally; the caller's working tree is never
written."""
import argparse
import os
import shutil
import subprocess
import sys
import time
from dataclasses import dataclass

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


@dataclass
class Mutant:
    name: str
    path: str      # relative to the repository root
    find: str      # must occur exactly once
    replace: str
    what: str


M = Mutant
MUTANTS = [
    # the argument model: lengths, devices, alignment, check order, overflow
    M("length-longer-passes", "cpp/core/views.cpp", "if (actual != expected) {",
      "if (actual < expected) {", "a length check lets longer arrays through"),
    M("empty-must-align", "cpp/core/views.cpp", "array.size != 0 && reinterpret_cast",
      "reinterpret_cast", "empty arrays must be aligned too"),
    M("align-message", "cpp/core/views.cpp", '" must be 8-byte aligned"',
      '" must be 8 byte aligned"', "wrong alignment message"),
    M("batch-same-device-order", "cpp/core/views.cpp",
      "require_same_input_device(sv, zv);\n    require_same_device(sv, out);",
      "require_same_device(sv, out);\n    require_same_input_device(sv, zv);",
      "NT batch: output placement checked before the s/z pair"),
    M("fill-values-length", "cpp/core/views.cpp", "csr ? second.size : first.size",
      "csr ? first.size : second.size", "fill: values measured against the wrong index array"),
    M("no-overflow-check", "cpp/core/errors.hpp", "if (__builtin_mul_overflow(a, b, &result)) {",
      "if (result = a * b, false) {", "size products may wrap"),
    M("packing-same-device", "cpp/cones/psd_packing.cpp",
      'checked_vector_view(output, order * order, "output");\n    require_same_device(in, out);',
      'checked_vector_view(output, order * order, "output");', "smat_into: same-device check dropped"),
    M("unit-index-first", "cpp/cones/frame/dense_builders.hpp",
      'VectorView out = dense_output_view(output, rows, "output");',
      'if (index >= rows) fail("unit vector index out of range");\n'
      '        VectorView out = dense_output_view(output, rows, "output");',
      "unit_vector_into: index checked before the output"),
    M("unit-array-write", "cpp/cones/frame/dense_builders.cpp",
      'make_owned_vector(n, "unit vector");\n    out.data()[index] = 1.0;',
      'make_owned_vector(n, "unit vector");', "unit_vector_array: the 1.0 is not written"),
    M("has-cusolver", "cpp/bindings/capabilities.cpp",
      'm.def("has_cusolver", [] { return kCudaLibraries; });',
      'm.def("has_cusolver", [] { return true; });', "has_cusolver() true without CUDA"),
    M("atol-default", "cpp/bindings/cone_class.hpp", '"atol"_a = 1e-8', '"atol"_a = 1e-7',
      "wrong default atol"),
    # sparse fills
    M("csr-end-negative", "cpp/cones/frame/sparse_fill.hpp", "if (a < 0 || b < 0) fail(",
      "if (a < 0) fail(", "CSR: a negative row end is not reported as such"),
    M("csr-decreasing", "cpp/cones/frame/sparse_fill.hpp", "> nnz || b < a) fail(",
      "> nnz) fail(", "CSR: decreasing indptr passes silently"),
    M("indptr-covers", "cpp/cones/frame/sparse_fill.cpp", "- 1 >= row_offset", "- 1 > row_offset",
      "CSR: an indptr of exactly the needed length is refused"),
    M("grid-off-by-one", "cpp/math/sparse_fill.hpp", "u - row_offset >= rows()",
      "u - row_offset > rows()", "fill: one index past the block counts as inside"),
    M("csr-last-row", "cpp/math/sparse_fill.hpp", "r < grid.rows(); r += row_step",
      "r + 1 < grid.rows(); r += row_step", "CSR: the block's last row is not filled"),
    M("off-block-kept", "cpp/math/sparse_fill.hpp", "} else if (off_block == OffBlock::Zero) {",
      "} else if (off_block == OffBlock::Keep) {", "fill: entries beside the block keep values"),
    M("coo-row-check-late", "cpp/math/sparse_fill.hpp",
      "pattern.index(r, kCooRowNegative);\n        size_t row = 0;\n"
      "        if (!grid.locate(r, &row)) continue;",
      "size_t row = 0;\n        if (!grid.locate(r, &row)) continue;\n"
      "        pattern.index(r, kCooRowNegative);",
      "COO: a negative row index is never reported"),
    # zero and nonnegative cones, host loops
    M("zero-tolerance", "cpp/cones/zero_cone.cpp", "kZeroTolerance = 1e-10;",
      "kZeroTolerance = 1e-8;", "zero-cone NT test with a looser tolerance"),
    M("zero-fill-nan", "cpp/cones/zero_cone.cpp",
      "bool exactly_zero(double v) { return v == 0.0; }",
      "bool exactly_zero(double v) { return !(std::fabs(v) > 0.0); }",
      "zero-cone fill lets NaN pass"),
    M("nn-batch-z-test", "cpp/cones/nonnegative_cone.cpp",
      "loops.any_at_most(s + at, length, 0.0) ||\n                       "
      "loops.any_at_most(z + at, length, 0.0)", "loops.any_at_most(s + at, length, 0.0)",
      "nonnegative batch: z not tested"),
    M("nn-batch-ratio", "cpp/cones/nonnegative_cone.cpp", "return z[b * n + k] / s[b * n + k];",
      "return s[b * n + k] / z[b * n + k];", "nonnegative batch: s / z instead of z / s"),
    M("positivity-nan", "cpp/math/positivity.hpp", "return !(0.0 >= v);", "return 0.0 < v;",
      "the positivity test refuses NaN"),
    M("scan-tail", "cpp/cones/host_loops_body.inc", "for (; i < n; ++i) found |= x[i] < bound;",
      "for (; i + 1 < n; ++i) found |= x[i] < bound;", "any_below misses the last entry"),
    M("sum-order", "cpp/cones/host_loops_body.inc", "acc += t[2];\n    acc += t[3];",
      "acc += t[3];\n    acc += t[2];", "lanes summed out of index order"),
    M("block-split", "cpp/cones/frame/parallel.hpp", "t * (q + 1) + q + 1};", "t * (q + 1) + q};",
      "team blocks leave one item out"),
    M("team-threshold", "cpp/cones/frame/parallel.hpp", "return n <= threshold ? 1",
      "return n < threshold ? 1", "a team starts at the threshold itself"),
    # second-order cone
    M("soc-contains-strict", "cpp/cones/second_order_cone.cpp",
      "return in.data[0] >= tail_norm(in.data, rows_) - atol;",
      "return in.data[0] > tail_norm(in.data, rows_) - atol;", "boundary points not contained"),
    M("soc-tail-head", "cpp/cones/second_order_cone.cpp", "r.begin == 0 ? 1 : r.begin",
      "r.begin == 0 ? 0 : r.begin", "the tail norm includes the head"),
    M("soc-nan-scale", "cpp/math/second_order.hpp", "r > 0.0 ? a / r : 0.0",
      "r > 0.0 ? a / r : 1.0",
      "projection keeps the tail when its norm is not positive"),
    M("soc-nt-z-test", "cpp/cones/second_order_nt.cpp",
      "    if (!soc_strictly_interior(z[0], soc_tail_sum_sq(z, n), n)) return false;\n", "",
      "NT scaling: z not tested for interiority"),
    M("soc-method-rule", "cpp/math/nt_method_rules.hpp", "batch >= kSocCublasMinBatch;",
      "batch > kSocCublasMinBatch;", "SOC default method: batch 16 not cuBLAS"),
    # exponential cone
    M("exp-clamp-high", "cpp/math/exponential.hpp",
      "    if (r > kExpRatioMax) return kExpRatioMax;\n",
      "", "exp ratio not clamped above"),
    M("exp-clear-y", "cpp/math/exponential.hpp", "return {v.x > 0.0 ? 0.0 : v.x, 0.0,",
      "return {v.x > 0.0 ? 0.0 : v.x, v.y,", "projection keeps a non-positive y"),
    M("exp-contains-x", "cpp/math/exponential.hpp", "return v.x <= atol && std::fabs",
      "return v.x < atol && std::fabs", "membership: x = atol on the ray fails"),
    M("exp-fill-ray", "cpp/cones/exponential_cone.cpp", "v.x < 0.0 && v.z >= 0.0;",
      "v.x < 0.0 && v.z > 0.0;", "fill refuses the ray point with z = 0"),
    M("exp-batch-zero", "cpp/cones/exponential_cone.cpp",
      "    std::fill(o, o + n * n * batch, 0.0);\n", "",
      "batch: entries off the blocks not zeroed"),
    # PSD cone, packing, Jacobi
    M("psd-singular", "cpp/cones/psd_nt_host.cpp", "if (lambda <= 0.0) {", "if (lambda < 0.0) {",
      "NT scaling accepts a singular matrix"),
    M("psd1-clear", "cpp/cones/psd_nt_host.cpp", "    std::fill(out, out + batch, 0.0);\n", "",
      "order-1 batch: later blocks not cleared"),
    M("psd2-swap", "cpp/cones/psd_nt_host.cpp", "psd2_nt_congruence(s + 3 * b, z + 3 * b)",
      "psd2_nt_congruence(z + 3 * b, s + 3 * b)", "order-2 batch: s and z swapped"),
    M("psd-operator-factor", "cpp/math/psd_nt.hpp", "if (i != j) v = v * kSqrt2;",
      "if (k != l) v = v * kSqrt2;", "operator: sqrt(2) by the column position"),
    M("psd-clip", "cpp/cones/psd_cone.cpp", "if (lambda < 0.0) lambda = 0.0;",
      "if (lambda < 0.0) lambda = -lambda;", "projection reflects negative eigenvalues"),
    M("psd-contains-strict", "cpp/cones/psd_cone.cpp", "return atol >= psd_violation_host",
      "return atol > psd_violation_host", "membership fails at violation = atol"),
    M("svec-factor", "cpp/math/svec.hpp", "x[k++] = i < j ? v * kSqrt2 : v;",
      "x[k++] = i < j ? v / kSqrt2 : v;", "svec divides off-diagonal entries"),
    M("smat-upper", "cpp/math/svec.hpp", "            m[i * n + j] = v;\n", "",
      "smat leaves the upper triangle zero"),
    M("jacobi-threshold", "cpp/math/jacobi.hpp", "kJacobiThreshold = 1e-12;",
      "kJacobiThreshold = 1e-10;", "Jacobi stops at a looser threshold"),
    M("jacobi-tie", "cpp/cones/jacobi_eigh.cpp", "v > 0.0 && col < arg_[r]",
      "v > 0.0 && col > arg_[r]",
      "pivot ties go to the larger column"),
    M("jacobi-rescan", "cpp/cones/jacobi_eigh.cpp", "if (rot.q + 1 < n_) rescan(rot.q);", "",
      "row q not rescanned after a rotation"),
    M("psd-method-rule", "cpp/math/nt_method_rules.hpp", "order >= kPsdCublasMinOrder && batch >= 1",
      "order >= kPsdCublasMinOrder && batch >= 0", "PSD default method: cuBLAS for an empty batch"),
]


def run(cmd, log, timeout=None, **kw):
    """Runs cmd with its output appended to log; (return code, seconds)."""
    start = time.time()
    with open(log, "a") as out:
        try:
            rc = subprocess.run(cmd, stdout=out, stderr=subprocess.STDOUT, timeout=timeout,
                                **kw).returncode
        except subprocess.TimeoutExpired:
            rc = None
    return rc, time.time() - start


def source_files():
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others",
                             "--exclude-standard"], cwd=ROOT, capture_output=True,
                            check=True).stdout.decode()
    return [f for f in listed.split("\0") if f and os.path.isfile(os.path.join(ROOT, f))]


def sync(src):
    """Makes src a copy of the working tree; unchanged files keep their time
    stamps (incremental builds), files gone from the tree go, build outputs stay."""
    files = set(source_files())
    for f in files:
        a, b = os.path.join(ROOT, f), os.path.join(src, f)
        if not os.path.exists(b) or open(a, "rb").read() != open(b, "rb").read():
            os.makedirs(os.path.dirname(b), exist_ok=True)
            shutil.copy2(a, b)
    for folder, dirs, names in os.walk(src):
        dirs[:] = [d for d in dirs if d not in ("__pycache__", ".hypothesis")]
        for name in names:
            rel = os.path.relpath(os.path.join(folder, name), src)
            if rel not in files and not name.endswith((".so", ".pyi")):
                os.remove(os.path.join(src, rel))


def first_failure(log):
    """The first failing test, a crash, or the log's last line."""
    with open(log) as f:
        lines = f.read().splitlines()
    hits = [line.split(" - ")[0] for line in lines
            if line.startswith(("FAILED ", "ERROR ", "Fatal Python error"))]
    return hits[0] if hits else (lines[-1] if lines else "")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("names", nargs="*")
    parser.add_argument("--python", default="/usr/bin/python3")
    parser.add_argument("--deps", default="build/deps")
    parser.add_argument("--build", default="build/mutants")
    parser.add_argument("--limit", type=float, default=600, help="seconds per test run")
    parser.add_argument("--list", action="store_true")
    args = parser.parse_args()

    unknown = set(args.names) - {m.name for m in MUTANTS}
    if unknown:
        sys.exit(f"mutants: no mutant named {', '.join(sorted(unknown))}")
    chosen = [m for m in MUTANTS if not args.names or m.name in args.names]
    stale = []
    for m in chosen:
        count = open(os.path.join(ROOT, m.path)).read().count(m.find)
        if count != 1:
            stale.append(f"  {m.name}: {m.path} holds its snippet {count} times, not once")
    if stale:
        sys.exit("mutants: snippets to update:\n" + "\n".join(stale))
    if args.list:
        for m in chosen:
            print(f"{m.name:26} {m.path:38} {m.what}")
        return

    base = os.path.abspath(os.path.join(ROOT, args.build))
    src, build, logs = (os.path.join(base, d) for d in ("src", "build", "logs"))
    os.makedirs(logs, exist_ok=True)
    sync(src)
    env = dict(os.environ, DRAVIK_DEPS=os.path.abspath(os.path.join(ROOT, args.deps)))
    build_cmd = ["bash", "scripts/build.sh", args.python, build, "-DDRAVIK_CUDA=OFF"]
    test_cmd = [args.python, "-m", "pytest", "-x", "-q", "-m", "not gpu", "-p",
                "no:cacheprovider", "tests"]
    test_env = dict(env, PYTHONPATH="python")

    def attempt(label):
        """build then test in src: ('stillborn' | 'killed' | 'survived', detail, seconds)."""
        log = os.path.join(logs, label + ".log")
        open(log, "w").close()
        rc, built = run(build_cmd, log, cwd=src, env=env)
        if rc != 0:
            return "stillborn", "build failed", built
        rc, tested = run(test_cmd, log, timeout=args.limit, cwd=src, env=test_env)
        if rc is None:
            return "killed", f"time limit ({args.limit:.0f} s)", built + tested
        return ("survived", "", built + tested) if rc == 0 else (
            "killed", first_failure(log), built + tested)

    state, detail, seconds = attempt("unmutated")
    if state != "survived":
        sys.exit(f"mutants: the unmutated copy does not pass ({detail}); "
                 f"see {logs}/unmutated.log")
    print(f"unmutated copy: built and passed in {seconds:.0f} s\n")
    print(f"{'mutant':26} {'result':10} {'s':>4}  detail")
    results = []
    for m in chosen:
        path = os.path.join(src, m.path)
        original = open(path).read()
        try:
            with open(path, "w") as f:
                f.write(original.replace(m.find, m.replace))
            state, detail, seconds = attempt(m.name)
        finally:
            with open(path, "w") as f:
                f.write(original)
        results.append((m, state))
        print(f"{m.name:26} {state:10} {seconds:4.0f}  {detail or m.what}", flush=True)
    killed = sum(state == "killed" for _, state in results)
    stillborn = sum(state == "stillborn" for _, state in results)
    survivors = [m.name for m, state in results if state == "survived"]
    print(f"\nkilled {killed} of {len(results)} ({stillborn} stillborn)")
    if survivors:
        print("survivors: " + ", ".join(survivors))


if __name__ == "__main__":
    main()
