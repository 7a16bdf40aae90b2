"""make bench: runs every benchmark module bench/bench_*.py (each defines
main()), shows progress, says what the machine is, and writes every timed
row to bench/results/bench.csv and per-cone plots (time and ratio against
size) to bench/results/*.png.

    python bench/run.py [--only NAME ...]
"""
import argparse
import csv
import importlib
import os
import pathlib
import platform
import sys
import time

here = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(here))

import numpy as np  # noqa: E402
import timing  # noqa: E402

from dravik.mirel.cones.cpp import _cpp_cuda as m  # noqa: E402


def machine():
    cpu = platform.processor() or platform.machine()
    try:
        with open("/proc/cpuinfo") as f:
            cpu = next(line.split(":", 1)[1].strip() for line in f if line.startswith("model name"))
    except (OSError, StopIteration):
        pass
    gpu, reason = timing.gpu_arrays(m)
    threads = os.environ.get("OMP_NUM_THREADS", f"default ({os.cpu_count()})")
    return (f"host: {cpu}, {os.cpu_count()} cores, OMP_NUM_THREADS={threads}, "
            f"NumPy {np.__version__}; device: {gpu.name + ' on CUDA' if gpu else reason}")


def write_csv(path):
    fields = ["label", "cone", "operation", "size", "where", "ours_s", "peer_s", "peer", "ratio",
              "bytes", "copy_share"]
    with open(path, "w", newline="") as f:
        writer = csv.DictWriter(f, fieldnames=fields)
        writer.writeheader()
        writer.writerows(timing.RESULTS)


def write_plots(folder):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("plots: matplotlib is not installed (apt-get install python3-matplotlib)")
        return []
    written = []
    for cone in sorted({r["cone"] for r in timing.RESULTS}):
        rows = [r for r in timing.RESULTS if r["cone"] == cone and r["size"]]
        series = sorted({(r["operation"], r["where"]) for r in rows})
        if not any(len([r for r in rows if (r["operation"], r["where"]) == s]) > 1 for s in series):
            continue  # nothing to draw against size
        fig, (left, right) = plt.subplots(1, 2, figsize=(11, 4))
        for op, where in series:
            pts = sorted((r["size"], r["ours_s"], r["peer_s"], r["ratio"]) for r in rows
                         if (r["operation"], r["where"]) == (op, where))
            if len(pts) < 2:
                continue
            size, ours, peer, ratio = zip(*pts)
            line, = left.loglog(size, np.array(ours) * 1e3, marker="o", label=f"{op} ({where})")
            left.loglog(size, np.array(peer) * 1e3, ls="--", color=line.get_color())
            right.semilogx(size, ratio, marker="o", color=line.get_color(), label=f"{op} ({where})")
        left.set(title=f"{cone}: time (solid ours, dashed peer)", xlabel="size", ylabel="ms")
        right.axhline(1.0, color="grey", lw=0.8)
        right.set(title=f"{cone}: speed-up over the peer", xlabel="size", ylabel="peer / ours")
        right.legend(fontsize=7)
        fig.tight_layout()
        path = folder / f"{cone.replace(' ', '_').replace('/', '_')}.png"
        fig.savefig(path, dpi=90)
        plt.close(fig)
        written.append(path)
    return written


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--only", nargs="*", help="bench module names (e.g. bench_zero)")
    args = parser.parse_args()
    modules = sorted(p.stem for p in here.glob("bench_*.py"))
    if args.only:
        modules = [name for name in modules if name in args.only]
    print(machine(), flush=True)
    start = time.perf_counter()
    for k, name in enumerate(modules, 1):
        print(f"== [{k}/{len(modules)}] {name} ({time.perf_counter() - start:.0f} s) ==", flush=True)
        importlib.import_module(name).main()
    folder = here / "results"
    folder.mkdir(exist_ok=True)
    write_csv(folder / "bench.csv")
    plots = write_plots(folder)
    print(f"wrote {folder / 'bench.csv'} ({len(timing.RESULTS)} rows)"
          + (f" and {len(plots)} plots" if plots else "")
          + f" in {time.perf_counter() - start:.0f} s")


if __name__ == "__main__":
    main()
