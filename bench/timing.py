"""Timing helpers shared by the benchmarks: best-of-N wall time, the host
copy bandwidth, and a report line that puts this module next to its peer,
prints the ratio and records the row for the CSV and the plots that
bench/run.py writes."""
import os
import re
import sys
import time

import numpy as np

# The GPU array helper is shared with the tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from gpu_arrays import gpu_arrays  # noqa: E402,F401

RESULTS = []  # one dict per report() call, in order


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


def best_times_interleaved(fns, repeat=7, number=1):
    """Best wall time per call of each fn, timed in alternation: each round
    runs `number` calls of every fn in turn, so that a burst of load from
    other processes falls on all of them alike."""
    for fn in fns:
        fn()  # warm-up: first-touch allocation, thread team start
    best = [float("inf")] * len(fns)
    for _ in range(repeat):
        for k, fn in enumerate(fns):
            start = time.perf_counter()
            for _ in range(number):
                fn()
            best[k] = min(best[k], (time.perf_counter() - start) / number)
    return best


_COPY_RATE = {}


def host_copy_bandwidth(nbytes):
    """np.copyto of nbytes (bytes read plus written per second), cached per size."""
    if nbytes not in _COPY_RATE:
        src, dst = np.ones(max(nbytes // 8, 1)), np.empty(max(nbytes // 8, 1))
        _COPY_RATE[nbytes] = 2 * src.nbytes / best_time(lambda: np.copyto(dst, src), number=5)
    return _COPY_RATE[nbytes]


def _guess(label, key):
    found = re.search(rf"\b{key}=(\d+)", label)
    return int(found.group(1)) if found else None


def report(label, ours, peer, peer_name, *, cone=None, operation=None, size=None,
           nbytes=None, where="host", copy_rate=None):
    """One line: our time, the peer's time and peer/ours (above 1 means we
    are faster); with nbytes (bytes the call must move) also the rate and its
    share of the copy bandwidth. The row is kept for the CSV and plots."""
    ratio = peer / ours
    line = (f"{label:<48} ours {ours * 1e3:9.3f} ms   {peer_name} {peer * 1e3:9.3f} ms   "
            f"speed-up x{ratio:6.2f}")
    share = None
    if nbytes and nbytes >= 1 << 20:  # below that a call is latency, not bandwidth
        rate = nbytes / ours
        if copy_rate is None and where == "host":
            copy_rate = host_copy_bandwidth(nbytes)
        if copy_rate:
            share = rate / copy_rate
            line += f"   {rate / 1e9:6.2f} GB/s = {100 * share:5.1f}% of copy"
    print(line, flush=True)
    RESULTS.append({
        "label": label, "cone": cone or label.split()[0],
        "operation": operation or re.sub(r"\s*\b(n|dim|batch|blocks)=\d+", "", label),
        "size": size if size is not None else (_guess(label, "n") or _guess(label, "dim")),
        "where": where, "ours_s": ours, "peer_s": peer, "peer": peer_name, "ratio": ratio,
        "bytes": nbytes, "copy_share": share,
    })
    return ratio
