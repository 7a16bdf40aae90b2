"""Timing helpers shared by the benchmarks: best-of-N wall time and a report
line that puts this module next to its peer and prints the ratio."""
import time


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


class Gpu:
    """CuPy or PyTorch, whichever is present, behind the few calls the
    device benchmarks need."""

    def __init__(self, name, xp):
        self.name = name
        self.xp = xp

    def to_device(self, values):
        import numpy as np
        values = np.ascontiguousarray(values, dtype=np.float64)
        if self.name == "cupy":
            return self.xp.asarray(values)
        return self.xp.from_numpy(values.copy()).to("cuda")

    def synchronize(self):
        if self.name == "cupy":
            self.xp.cuda.Device().synchronize()
        else:
            self.xp.cuda.synchronize()

    def timed(self, fn, repeat=10, number=5):
        """Best time per call of fn, waiting for the device after each call."""
        def run():
            fn()
            self.synchronize()
        return best_time(run, repeat=repeat, number=number)

    def copy_bandwidth(self, nbytes=1 << 28):
        """Device-to-device copy rate, bytes read plus written per second."""
        import numpy as np
        src = self.to_device(np.zeros(nbytes // 8))
        dst = self.to_device(np.zeros(nbytes // 8))
        return 2 * nbytes / self.timed(lambda: dst.__setitem__(slice(None), src))


def gpu_library(m):
    """(Gpu, "") when the module sees a CUDA device and CuPy or PyTorch is
    importable, else (None, the reason)."""
    if not m.has_cuda():
        return None, "no usable CUDA device"
    try:
        import cupy
        return Gpu("cupy", cupy), ""
    except ImportError:
        pass
    try:
        import torch
        if torch.cuda.is_available():
            return Gpu("torch", torch), ""
    except ImportError:
        pass
    return None, "neither CuPy nor PyTorch is installed"
