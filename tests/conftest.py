"""Shared fixtures: the module, fake device arrays, and real GPU arrays where
a usable CUDA device and CuPy or PyTorch are present."""
import importlib
import os
import subprocess
import sys

import numpy as np
import pytest

from dravik.mirel.cones.cpp import _cpp_cuda

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
# The package tree the module under test was loaded from: python/, or the
# staged copy of a variant build (the sanitizer build).
PACKAGE_ROOT = os.path.abspath(os.path.join(os.path.dirname(_cpp_cuda.__file__), *[".."] * 4))


def pytest_report_header():
    return f"_cpp_cuda: {_cpp_cuda.__file__}"


@pytest.fixture(scope="session")
def m():
    return _cpp_cuda


@pytest.fixture
def rng():
    return np.random.default_rng(12345)


class GpuArrays:
    """Moves float64 vectors between NumPy and one GPU array library, and runs
    cone methods on device copies of host values."""

    def __init__(self, name, lib):
        self.name, self.lib = name, lib

    def to_device(self, values):
        values = np.ascontiguousarray(values, dtype=np.float64)
        if self.name == "cupy":
            return self.lib.asarray(values)
        return self.lib.from_numpy(values.copy()).to("cuda")

    def empty(self, n, fill=np.nan):
        return self.to_device(np.full(n, fill))

    def to_host(self, array):
        return self.lib.asnumpy(array) if self.name == "cupy" else array.cpu().numpy()

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


def _gpu_arrays():
    if not _cpp_cuda.has_cuda():
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


@pytest.fixture(scope="session")
def gpu():
    """GPU array helper; skips the test with the reason when none is usable."""
    arrays, reason = _gpu_arrays()
    if arrays is None:
        pytest.skip(reason)
    return arrays


def run_python(code, timeout=None, **env):
    """Runs `code` in a fresh interpreter with extra environment variables
    (for example OMP_NUM_THREADS) and returns its stdout; fails after
    `timeout` seconds if given."""
    full_env = dict(os.environ)
    full_env["PYTHONPATH"] = os.pathsep.join([PACKAGE_ROOT, HERE])
    full_env.update({k: str(v) for k, v in env.items()})
    done = subprocess.run([sys.executable, "-c", code], env=full_env, capture_output=True,
                          text=True, check=True, timeout=timeout)
    return done.stdout
