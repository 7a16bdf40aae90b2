"""Timing helpers shared by the benchmarks: best-of-N wall time and a report
line that puts this module next to its peer and prints the ratio."""
import os
import sys
import time

# The GPU array helper is shared with the tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from gpu_arrays import gpu_arrays  # noqa: E402,F401


def best_time(fn, repeat=7, number=1):
    """Best wall time of `number` calls of fn, over `repeat` rounds (seconds per call)."""
    fn()  # warm-up: first-touch allocation, thread team start
    best = float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        for _ in range(number):
            fn()
        best = min(best, (time.perf_counter() - start) / number)
    return best


def report(label, ours, peer, peer_name):
    """One line: our time, the peer's time and peer/ours (above 1 means we are faster)."""
    print(f"{label:<48} ours {ours * 1e3:9.3f} ms   {peer_name} {peer * 1e3:9.3f} ms   "
          f"speed-up x{peer / ours:6.2f}")
    return peer / ours
