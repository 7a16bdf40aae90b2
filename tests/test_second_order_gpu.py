"""Second-order cone on CUDA arrays: projection, violation and membership, and
the custom, cuBLAS and default NT scaling paths, each against the host path
on the same values. Skipped without a usable GPU and CuPy or PyTorch."""
import numpy as np
import pytest


def vector(kind, dim, rng):
    x = rng.standard_normal(dim)
    r = np.linalg.norm(x[1:])
    x[0] = {"inside": 1.5 * r + 0.1, "polar": -1.5 * r - 0.1, "between": 0.3 * r}[kind]
    return x


# 257 spans two blocks, 70000 needs two reduction passes for the tail norm.
@pytest.mark.parametrize("dim", [1, 2, 3, 257, 70000])
@pytest.mark.parametrize("kind", ["inside", "polar", "between"])
def test_elementwise_functions_match_host(m, gpu, rng, dim, kind):
    cone = m.SecondOrderConeCpp(dim)
    x = vector(kind, dim, rng) if dim > 1 else np.array([{"inside": 2.0, "polar": -2.0,
                                                           "between": 0.0}[kind]])
    host = np.empty(dim)
    cone.project_into(x, host)
    dx = gpu.to_device(x)
    out = gpu.empty(dim)
    cone.project_into(dx, out)
    gpu.synchronize()
    np.testing.assert_allclose(gpu.to_host(out), host, rtol=1e-12, atol=1e-14)
    assert cone.violation(dx) == pytest.approx(cone.violation(x), rel=1e-12, abs=1e-14)
    assert cone.contains(dx) == cone.contains(x)


@pytest.mark.parametrize("dim", [2, 257, 70000])
@pytest.mark.parametrize("kind", ["polar", "between"])
def test_projection_in_place(m, gpu, rng, dim, kind):
    cone = m.SecondOrderConeCpp(dim)
    x = vector(kind, dim, rng)
    host = np.empty(dim)
    cone.project_into(x, host)
    dx = gpu.to_device(x)
    cone.project_into(dx, dx)
    gpu.synchronize()
    np.testing.assert_allclose(gpu.to_host(dx), host, rtol=1e-12, atol=1e-14)


def test_documented_device_values(m, gpu):
    assert m.SecondOrderConeCpp(2).violation(gpu.to_device([0.0, 1.0])) == pytest.approx(
        np.sqrt(0.5), rel=1e-15)
    cone = m.SecondOrderConeCpp(3)
    assert cone.contains(gpu.to_device([5.0, 3.0, 4.0]), atol=0.0)
    assert not cone.contains(gpu.to_device([5.0 - 1e-12, 3.0, 4.0]), atol=0.0)
    assert not cone.contains(gpu.to_device([np.nan, 3.0, 4.0]))
    assert m.SecondOrderConeCpp(1).contains(gpu.to_device([-5e-9]))


def interior_batch(dim, batch, rng):
    s = rng.standard_normal((batch, dim))
    z = rng.standard_normal((batch, dim))
    s[:, 0] = 1.5 * np.linalg.norm(s[:, 1:], axis=1) + 0.1
    z[:, 0] = 3.0 * np.linalg.norm(z[:, 1:], axis=1) + 0.1
    return s.ravel(), z.ravel()


METHODS = ["nt_scaling_matrix_batch_into", "nt_scaling_matrix_batch_custom_into",
           "nt_scaling_matrix_batch_cublas_into"]


@pytest.mark.parametrize("dim", [1, 2, 5, 32, 33, 300])
@pytest.mark.parametrize("batch", [1, 15, 16, 1000])
def test_nt_scaling_paths_match_host(m, gpu, rng, dim, batch):
    cone = m.SecondOrderConeCpp(dim)
    s, z = interior_batch(dim, batch, rng)
    host = np.empty(dim * dim * batch)
    cone.nt_scaling_matrix_batch_into(s, z, host, batch)
    ds, dz = gpu.to_device(s), gpu.to_device(z)
    for method in METHODS:
        out = gpu.empty(dim * dim * batch)
        getattr(cone, method)(ds, dz, out, batch)
        gpu.synchronize()
        np.testing.assert_allclose(gpu.to_host(out), host, rtol=1e-9, atol=1e-11,
                                   err_msg=method)
        del out


def test_nt_scaling_into_is_batch_of_one(m, gpu, rng):
    cone = m.SecondOrderConeCpp(4)
    s, z = interior_batch(4, 1, rng)
    out = gpu.empty(16)
    cone.nt_scaling_matrix_into(gpu.to_device(s), gpu.to_device(z), out)
    gpu.synchronize()
    np.testing.assert_allclose(gpu.to_host(out), cone.nt_scaling_matrix(s, z), rtol=1e-12)


@pytest.mark.parametrize("method", METHODS)
def test_zero_batch_leaves_output_untouched(m, gpu, method):
    out = gpu.empty(4, fill=7.0)
    getattr(m.SecondOrderConeCpp(2), method)(gpu.to_device(np.empty(0)),
                                             gpu.to_device(np.empty(0)), out[:0], 0)
    gpu.synchronize()
    assert (gpu.to_host(out) == 7.0).all()


@pytest.mark.parametrize("method", METHODS)
def test_device_paths_do_not_check_interiority(m, gpu, method):
    s = gpu.to_device([5.0, 3.0, 4.0])
    out = gpu.empty(9)
    getattr(m.SecondOrderConeCpp(3), method)(s, s, out, 1)
    gpu.synchronize()
    assert not np.isfinite(gpu.to_host(out)).all()
