"""Host elementwise operations of the zero, nonnegative and second-order
cones, and the zero, nonnegative and second-order NT batches, against their
NumPy equivalents and against the copy bandwidth (np.copyto of the same
bytes: the input for the elementwise operations, the output for the
batches), on one OpenMP thread and on the default team.

Ours, NumPy and the copy are timed in alternation (one round of each, best
of N rounds), so that load from other processes falls on all three alike.
The thread count is switched in-process through libgomp's
omp_set_num_threads, which the module's team-size queries follow.

Columns: ours and NumPy in ms, NumPy/ours (above 1: we are faster), the copy
in ms and copy/ours (the share of the copy bandwidth reached; 1.0 is as fast
as the copy). The violations, the zero test of the zero-cone batch and the
second-order tail norm add one term after another in index order within
each thread's block (the documented order, which fixes the bits): they run
at the latency of one floating-point addition per entry, not at memory
speed, so on one thread their copy share is bounded by it (about 0.5 ns per
entry here); their NumPy peers reassociate the sum."""
import ctypes
import math
import os
import sys

import numpy as np
import timing
from bench_second_order import interior_batch, nt_scaling_formulas, reflection
from timing import best_times_interleaved

from dravik.mirel.cones.cpp import _cpp_cuda as m

ATOL = 1e-8
SIZES = (10**4, 10**5, 10**6, 10**7)


def openmp():
    """libgomp as the module loaded it (the same instance, so the same settings)."""
    lib = ctypes.CDLL("libgomp.so.1")
    lib.omp_get_max_threads.restype = ctypes.c_int
    return lib


# ------------------------------------------------------------ NumPy peers

def np_soc_projection(x, out):
    r = math.sqrt(np.dot(x[1:], x[1:]))
    t = x[0]
    if t >= r:
        np.copyto(out, x)
    elif -t >= r:
        out.fill(0.0)
    else:
        a = (t + r) * 0.5
        np.multiply(x[1:], a / r if r > 0 else 0.0, out=out[1:])
        out[0] = a


def np_soc_violation(x, scratch):
    np_soc_projection(x, scratch)
    np.subtract(x, scratch, out=scratch)
    return math.sqrt(np.dot(scratch, scratch))


def np_nonnegative_batch(s, z, out, dim, batch):
    if not ((s > 0).all() and (z > 0).all()):
        raise RuntimeError("nonnegative NT scaling requires strictly positive interior inputs")
    blocks = out.reshape(batch, dim * dim)
    blocks[:] = 0.0
    np.divide(z.reshape(batch, dim), s.reshape(batch, dim), out=blocks[:, ::dim + 1])


# ------------------------------------------------------------ cases

def elementwise_cases(n, rng):
    """(cone, operation, ours, numpy) at size n, and the input (n doubles)."""
    x = rng.standard_normal(n)  # mixed signs
    # Each side writes its own output: an array the other side has just
    # written sits dirty in the calling core's cache, and a team thread on
    # another core would pay for fetching it.
    out, peer_out, scratch = np.empty(n), np.empty(n), np.empty(n)
    inside, tiny = np.abs(x), x * 1e-9  # members: no early exit on either side
    between = x.copy()
    between[0] = 0.3 * np.linalg.norm(x[1:])  # neither cone: the full work
    nn, zero, soc = m.NonnegativeConeCpp(n), m.ZeroConeCpp(n), m.SecondOrderConeCpp(n)
    return [
        ("nonnegative", "project_into", lambda: nn.project_into(x, out),
         lambda: np.maximum(x, 0.0, out=peer_out)),
        ("nonnegative", "violation", lambda: nn.violation(x),
         lambda: np.sqrt(np.sum(np.minimum(x, 0.0) ** 2))),
        ("nonnegative", "contains", lambda: nn.contains(inside, ATOL),
         lambda: np.all(inside >= -ATOL)),
        ("zero", "project_into", lambda: zero.project_into(x, out), lambda: peer_out.fill(0.0)),
        ("zero", "violation", lambda: zero.violation(x), lambda: np.linalg.norm(x)),
        ("zero", "contains", lambda: zero.contains(tiny, ATOL),
         lambda: np.all(np.abs(tiny) <= ATOL)),
        ("second-order", "project_into", lambda: soc.project_into(between, out),
         lambda: np_soc_projection(between, peer_out)),
        ("second-order", "violation", lambda: soc.violation(between),
         lambda: np_soc_violation(between, scratch)),
        ("second-order", "contains", lambda: soc.contains(between, ATOL),
         lambda: between[0] >= math.sqrt(np.dot(between[1:], between[1:])) - ATOL),
    ], x


def diagonal_batch_cases(rng, dim=8, batch=20000):
    """(cone, label, ours, numpy, output array) for the zero and nonnegative NT batches."""
    zeros = np.zeros(dim * batch)
    s, z = rng.uniform(0.5, 2.0, dim * batch), rng.uniform(0.5, 2.0, dim * batch)
    out, peer_out = np.empty(dim * dim * batch), np.empty(dim * dim * batch)
    zero, nn, eye = m.ZeroConeCpp(dim), m.NonnegativeConeCpp(dim), np.eye(dim)

    def np_identities():
        peer_out.reshape(batch, dim, dim)[:] = eye

    label = f"NT batch dim={dim} batch={batch}"
    return [("zero", label, lambda: zero.nt_scaling_matrix_batch_into(zeros, zeros, out, batch),
             np_identities, out),
            ("nonnegative", label, lambda: nn.nt_scaling_matrix_batch_into(s, z, out, batch),
             lambda: np_nonnegative_batch(s, z, peer_out, dim, batch), out)]


def soc_batch_case(rng, dim, batch):
    """The second-order NT batch against the same formulas vectorised over the batch."""
    cone = m.SecondOrderConeCpp(dim)
    s, z = interior_batch(dim, batch, rng)
    flat_s, flat_z, out = s.ravel(), z.ravel(), np.empty(dim * dim * batch)
    reflect = reflection(dim)
    return ("second-order", f"NT batch dim={dim} batch={batch}",
            lambda: cone.nt_scaling_matrix_batch_into(flat_s, flat_z, out, batch),
            lambda: nt_scaling_formulas(np, s, z, reflect), out)


def batch_cases(rng):
    return diagonal_batch_cases(rng) + [soc_batch_case(rng, dim, batch) for dim, batch in
                                        ((8, 20000), (32, 5000), (300, 10))]


def record(cone, operation, size, threads, times, nbytes):
    """Prints one line and keeps the row for the CSV and plots of bench/run.py."""
    ours, peer, copy = times
    label = f"{cone} {operation}" + (f" n={size}" if size else "")
    print(f"{label:<44} T={threads}  ours {ours * 1e3:8.3f} ms"
          f"  numpy {peer * 1e3:8.3f} ms  x{peer / ours:6.2f}"
          f"   copy {copy * 1e3:8.3f} ms  copy/ours {copy / ours:5.2f}", flush=True)
    timing.RESULTS.append({
        "label": f"{label} T={threads}", "cone": cone, "operation": operation,
        "size": size, "where": f"host T={threads}", "ours_s": ours, "peer_s": peer,
        "peer": "numpy", "ratio": peer / ours, "bytes": nbytes, "copy_share": copy / ours})


def run(thread_counts, sizes=SIZES, repeat=7):
    """Every case under each thread count: {(cone operation, size, threads):
    (ours, numpy, copy) in seconds}."""
    omp = openmp()
    default = omp.omp_get_max_threads()
    rng = np.random.default_rng(0)
    groups = [(n, *elementwise_cases(n, rng)) for n in sizes]
    batches = batch_cases(rng)
    results = {}
    try:
        for threads in thread_counts:
            omp.omp_set_num_threads(threads)
            for n, cases, x in groups:
                dst = np.empty_like(x)
                copy = lambda x=x, dst=dst: np.copyto(dst, x)  # noqa: E731
                for cone, operation, ours, peer in cases:
                    times = best_times_interleaved([ours, peer, copy], repeat, max(1, 10**6 // n))
                    record(cone, operation, n, threads, times, x.nbytes)
                    results[(f"{cone} {operation}", n, threads)] = times
            for cone, label, ours, peer, out in batches:
                src, dst = np.ones_like(out), np.empty_like(out)
                times = best_times_interleaved([ours, peer, lambda: np.copyto(dst, src)], repeat)
                record(cone, label, None, threads, times, out.nbytes)
                results[(f"{cone} {label}", None, threads)] = times
    finally:
        omp.omp_set_num_threads(default)
    return results


def main(argv=()):
    default = openmp().omp_get_max_threads()
    load = os.getloadavg()
    print(f"host elementwise: default team {default} threads on {os.cpu_count()} CPUs, "
          f"load average {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}, "
          f"OMP_WAIT_POLICY={os.environ.get('OMP_WAIT_POLICY', '(unset)')}")
    run(sorted({1, default}), tuple(int(a) for a in argv) or SIZES)


if __name__ == "__main__":
    main(sys.argv[1:])
