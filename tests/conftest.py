"""Shared fixtures: the module, the test-only hooks extension, and real GPU
arrays where a usable CUDA device and CuPy or PyTorch are present. Tests in
*_gpu.py files carry the `gpu` marker; when they are skipped, the summary
says why in one line."""
import numpy as np
import pytest
from gpu_arrays import gpu_arrays

from dravik.mirel.cones.cpp import _cpp_cuda


def pytest_report_header():
    return f"_cpp_cuda: {_cpp_cuda.__file__}"


@pytest.fixture(scope="session")
def m():
    return _cpp_cuda


@pytest.fixture(scope="session")
def hooks():
    """Internals for tests only (Jacobi pivot searches, 2 x 2 closed forms)."""
    import _cpp_cuda_test_hooks
    return _cpp_cuda_test_hooks


@pytest.fixture
def rng():
    return np.random.default_rng(12345)


_GPU, _GPU_REASON = gpu_arrays(_cpp_cuda)


@pytest.fixture(scope="session")
def gpu():
    """GPU array helper; skips the test with the reason when none is usable."""
    if _GPU is None:
        pytest.skip(_GPU_REASON)
    return _GPU


def pytest_collection_modifyitems(config, items):
    for item in items:
        if item.path.name.endswith("_gpu.py"):
            item.add_marker(pytest.mark.gpu)


def pytest_terminal_summary(terminalreporter):
    skipped = [r for r in terminalreporter.stats.get("skipped", []) if "gpu" in r.keywords]
    if skipped:
        terminalreporter.write_line(
            f"GPU tests: {len(skipped)} not run ({_GPU_REASON or 'skipped'})")
