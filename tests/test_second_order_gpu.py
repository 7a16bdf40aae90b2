"""Second-order cone on CUDA arrays: projection, violation and membership, and
the custom, cuBLAS and default NT scaling paths, each against the host path
on the same values. Skipped without a usable GPU and CuPy or PyTorch."""
import numpy as np
import pytest
from cone_cases import projected
from samples import soc_interior_batch, soc_sample

METHODS = ["nt_scaling_matrix_batch_into", "nt_scaling_matrix_batch_custom_into",
           "nt_scaling_matrix_batch_cublas_into"]


# 257 spans two blocks, 70000 needs two reduction passes for the tail norm.
@pytest.mark.parametrize("dim", [1, 2, 3, 257, 70000])
@pytest.mark.parametrize("kind", ["inside", "polar", "between"])
def test_elementwise_functions_match_host(m, gpu, rng, dim, kind):
    cone = m.SecondOrderConeCpp(dim)
    x = soc_sample(kind, dim, rng) if dim > 1 else np.array([{"inside": 2.0, "polar": -2.0,
                                                          "between": 0.0}[kind]])
    host = projected(cone, x)
    for in_place in (False, True):
        np.testing.assert_allclose(gpu.project(cone, x, in_place), host, rtol=1e-12, atol=1e-14)
    dx = gpu.to_device(x)
    assert cone.violation(dx) == pytest.approx(cone.violation(x), rel=1e-12, abs=1e-14)
    assert cone.contains(dx) == cone.contains(x)


def test_documented_device_values(m, gpu):
    assert m.SecondOrderConeCpp(2).violation(gpu.to_device([0.0, 1.0])) == pytest.approx(
        np.sqrt(0.5), rel=1e-15)
    cone = m.SecondOrderConeCpp(3)
    assert cone.contains(gpu.to_device([5.0, 3.0, 4.0]), atol=0.0)
    assert not cone.contains(gpu.to_device([5.0 - 1e-12, 3.0, 4.0]), atol=0.0)
    assert not cone.contains(gpu.to_device([np.nan, 3.0, 4.0]))
    assert m.SecondOrderConeCpp(1).contains(gpu.to_device([-5e-9]))


@pytest.mark.parametrize("dim", [1, 2, 5, 32, 33, 300])
@pytest.mark.parametrize("batch", [1, 15, 16, 1000])
def test_nt_scaling_paths_match_host(m, gpu, rng, dim, batch):
    cone = m.SecondOrderConeCpp(dim)
    s, z = soc_interior_batch(dim, batch, rng)
    host = np.empty(dim * dim * batch)
    cone.nt_scaling_matrix_batch_into(s, z, host, batch)
    for method in METHODS:
        np.testing.assert_allclose(gpu.scaling(cone, s, z, batch, method), host, rtol=1e-9,
                                   atol=1e-11, err_msg=method)
    if batch == 1:
        out = gpu.empty(dim * dim)
        cone.nt_scaling_matrix_into(gpu.to_device(s), gpu.to_device(z), out)
        gpu.synchronize()
        np.testing.assert_allclose(gpu.to_host(out), host, rtol=1e-9, atol=1e-11)


@pytest.mark.parametrize("method", METHODS)
def test_zero_batch_and_no_interior_test(m, gpu, method):
    out = gpu.empty(4, fill=7.0)
    getattr(m.SecondOrderConeCpp(2), method)(gpu.to_device(np.empty(0)),
                                             gpu.to_device(np.empty(0)), out[:0], 0)
    gpu.synchronize()
    assert (gpu.to_host(out) == 7.0).all()
    # The device paths do not check interiority: a boundary pair gives non-finite entries.
    boundary = np.array([5.0, 3.0, 4.0])
    got = gpu.scaling(m.SecondOrderConeCpp(3), boundary, boundary, 1, method)
    assert not np.isfinite(got).all()
