"""CuPy or PyTorch behind the few calls that the GPU tests and the device
benchmarks need: moving float64 vectors between NumPy and the device,
device addresses and new streams, waiting for the device, and running cone
methods on device copies."""
import ctypes
import importlib
import os
import time

import numpy as np


class GpuArrays:
    def __init__(self, name, lib):
        self.name, self.lib = name, lib
        self.xp = lib

    def to_device(self, values, dtype=np.float64):
        values = np.ascontiguousarray(values, dtype=dtype)
        if self.name == "cupy":
            return self.lib.asarray(values)
        return self.lib.from_numpy(values.copy()).to("cuda")

    def empty(self, n, fill=np.nan):
        return self.to_device(np.full(n, fill))

    def to_host(self, array):
        return self.lib.asnumpy(array) if self.name == "cupy" else array.cpu().numpy()

    def pointer(self, array):
        """The device address of an array's first element."""
        return array.data.ptr if self.name == "cupy" else array.data_ptr()

    def new_stream(self):
        """A new non-default stream: (the library's stream object, its handle)."""
        if self.name == "cupy":
            stream = self.lib.cuda.Stream(non_blocking=True)
            return stream, stream.ptr
        stream = self.lib.cuda.Stream()
        return stream, stream.cuda_stream

    def synchronize(self):
        if self.name == "cupy":
            self.lib.cuda.Device().synchronize()
        else:
            self.lib.cuda.synchronize()

    def project(self, cone, x, in_place=False, stream=0):
        """cone.project_into on a device copy of x (into a fresh output unless
        in_place); the result back on the host."""
        d = self.to_device(x)
        out = d if in_place else self.empty(len(d))
        self.synchronize()  # the copy ran on the library's own stream
        cone.project_into(d, out, stream)
        self.synchronize()
        return self.to_host(out)

    def scaling(self, cone, s, z, batch, method="nt_scaling_matrix_batch_into", stream=0):
        """A batch NT scaling method on device copies of s and z, back on the host."""
        ds, dz, out = self.to_device(s), self.to_device(z), self.empty(cone.rows ** 2 * batch)
        self.synchronize()
        getattr(cone, method)(ds, dz, out, batch, stream)
        self.synchronize()
        return self.to_host(out)

    def timed(self, fn, repeat=10, number=5):
        """Best time per call of fn (seconds), waiting for the device after each call."""
        fn()
        self.synchronize()
        best = float("inf")
        for _ in range(repeat):
            start = time.perf_counter()
            for _ in range(number):
                fn()
            self.synchronize()
            best = min(best, (time.perf_counter() - start) / number)
        return best

    def copy_bandwidth(self, nbytes=1 << 28):
        """Device-to-device copy rate, bytes read plus written per second."""
        src = self.to_device(np.zeros(nbytes // 8))
        dst = self.to_device(np.zeros(nbytes // 8))
        return 2 * nbytes / self.timed(lambda: dst.__setitem__(slice(None), src))


def psd_w_function(module):
    """dravik_psd_nt_scaling_w_cuda of the loaded module through ctypes: the
    W blocks have no Python method. Give it valid arguments only, since a
    C++ exception cannot cross ctypes."""
    function = ctypes.CDLL(module.__file__).dravik_psd_nt_scaling_w_cuda
    function.restype = None
    function.argtypes = [ctypes.c_void_p] * 3 + [ctypes.c_size_t] * 2 + [ctypes.c_int,
                                                                          ctypes.c_void_p]
    return function


def gpu_arrays(module):
    """(GpuArrays, "") when `module` sees a CUDA device and CuPy or PyTorch
    is importable, else (None, the reason)."""
    if not module.has_cuda():
        return None, "no usable CUDA device (has_cuda() is false)"
    for name in ("cupy", "torch"):
        try:
            lib = importlib.import_module(name)
        except ImportError:
            continue
        if name == "cupy" or lib.cuda.is_available():
            if name == "cupy" and os.environ.get("DRAVIK_GPU_POOL") == "off":
                lib.cuda.set_allocator(None)  # each array its own cudaMalloc (sanitizer runs)
            return GpuArrays(name, lib), ""
    return None, "a CUDA device is present but neither CuPy nor PyTorch is installed"
