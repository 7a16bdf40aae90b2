"""Shared fixtures: the module, fake device arrays, and real GPU arrays where
a usable CUDA device and CuPy or PyTorch are present."""
import os
import subprocess
import sys

import numpy as np
import pytest

from dravik.mirel.cones.cpp import _cpp_cuda

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


@pytest.fixture(scope="session")
def m():
    return _cpp_cuda


@pytest.fixture
def rng():
    return np.random.default_rng(12345)


class GpuArrays:
    """Moves float64 vectors between NumPy and one GPU array library."""

    def __init__(self, name, lib):
        self.name = name
        self.lib = lib

    def to_device(self, values):
        values = np.ascontiguousarray(values, dtype=np.float64)
        if self.name == "cupy":
            return self.lib.asarray(values)
        return self.lib.from_numpy(values.copy()).to("cuda")

    def empty(self, n, fill=np.nan):
        return self.to_device(np.full(n, fill))

    def to_host(self, array):
        if self.name == "cupy":
            return self.lib.asnumpy(array)
        return array.cpu().numpy()

    def synchronize(self):
        if self.name == "cupy":
            self.lib.cuda.Device().synchronize()
        else:
            self.lib.cuda.synchronize()


def _gpu_arrays():
    if not _cpp_cuda.has_cuda():
        return None, "no usable CUDA device (has_cuda() is false)"
    try:
        import cupy

        return GpuArrays("cupy", cupy), ""
    except ImportError:
        pass
    try:
        import torch

        if torch.cuda.is_available():
            return GpuArrays("torch", torch), ""
    except ImportError:
        pass
    return None, "a CUDA device is present but neither CuPy nor PyTorch is installed"


@pytest.fixture(scope="session")
def gpu():
    """GPU array helper; skips the test with the reason when none is usable."""
    arrays, reason = _gpu_arrays()
    if arrays is None:
        pytest.skip(reason)
    return arrays


def run_python(code, **env):
    """Runs `code` in a fresh interpreter with extra environment variables
    (for example OMP_NUM_THREADS) and returns its stdout."""
    full_env = dict(os.environ)
    full_env["PYTHONPATH"] = os.pathsep.join([os.path.join(ROOT, "python"), HERE])
    full_env.update({k: str(v) for k, v in env.items()})
    done = subprocess.run([sys.executable, "-c", code], env=full_env, capture_output=True,
                          text=True, check=True)
    return done.stdout
