"""Host Jacobi eigen-solver: the per-row-maxima pivot search against the
full upper-triangle scan (timed interleaved, in one run, outputs checked
identical bit for bit). The PSD projection that uses it is timed in
bench_operations."""
import time

import numpy as np
from timing import best_time, report

import _cpp_cuda_test_hooks as hooks  # built beside the module, in tests/
from dravik.mirel.cones.cpp import _cpp_cuda as m


def interleaved_best(fns, repeat=7):
    """Best time of each function, the functions taking turns in every round,
    so that both see the same machine load."""
    for fn in fns:
        fn()
    best = [float("inf")] * len(fns)
    for _ in range(repeat):
        for i, fn in enumerate(fns):
            start = time.perf_counter()
            fn()
            best[i] = min(best[i], time.perf_counter() - start)
    return best


def symmetric(rng, n):
    a = rng.standard_normal((n, n))
    return (a + a.T).ravel()


def jacobi_ratios(rng):
    ratios = {}
    for n in (50, 100):
        a = symmetric(rng, n)
        fast, full = hooks.jacobi_eigh(a, n), hooks.jacobi_eigh_reference(a, n)
        same = all(np.array_equal(x, y) for x, y in zip(fast, full))
        ours, peer = interleaved_best([lambda: hooks.jacobi_eigh(a, n),
                                       lambda: hooks.jacobi_eigh_reference(a, n)])
        ratios[n] = report(f"jacobi_eigh n={n} (identical: {same})", ours, peer, "full scan",
                           cone="PSD", operation="Jacobi pivot search", size=n)
        if not same:
            raise SystemExit(f"jacobi_eigh differs from the full scan at n={n}")
    print(f"jacobi_eigh speed-up over the full scan: n=50 x{ratios[50]:.2f}, "
          f"n=100 x{ratios[100]:.2f}")


def main():
    rng = np.random.default_rng(0)
    jacobi_ratios(rng)

