"""Device paths of the nonnegative and exponential cones against the host
results. Every test but the first needs a CUDA device (the `gpu` fixture skips
otherwise)."""
import ctypes

import numpy as np
import pytest
from test_exponential_cone import interior_blocks, sample_blocks

EXPORTED = [
    "dravik_nonnegative_project_cuda", "dravik_nonnegative_violation_cuda",
    "dravik_nonnegative_contains_cuda", "dravik_nonnegative_nt_scaling_batch_cuda",
    "dravik_exp_project_cuda", "dravik_exp_violation_cuda", "dravik_exp_contains_cuda",
    "dravik_exp_nt_scaling_batch_cuda",
]


def test_device_interface_is_exported(m):
    library = ctypes.CDLL(m.__file__)
    for name in EXPORTED:
        assert hasattr(library, name), name


def host_project(cone, x):
    out = np.empty_like(x)
    cone.project_into(x, out)
    return out


# (n, input offset, output offset) in doubles from 256-byte aligned bases:
# offset 0 is 32-byte aligned, 2 is 16-byte aligned, 1 only 8-byte aligned.
WIDTHS = [(8, 0, 0), (6, 0, 0), (8, 2, 0), (8, 0, 1), (7, 0, 0), (1, 0, 0),
          (1 << 20, 0, 0), (1 << 20, 2, 2), (1 << 20, 1, 3), (100003, 0, 0), (0, 0, 0)]


@pytest.mark.parametrize("n, off_in, off_out", WIDTHS)
def test_nonnegative_project_all_widths(m, gpu, rng, n, off_in, off_out):
    x = rng.standard_normal(n)
    x[::7] = np.nan
    x[1::11] = -0.0
    base_in = gpu.to_device(np.concatenate([np.zeros(off_in), x, np.zeros(8)]))
    base_out = gpu.empty(n + off_out + 8, fill=-5.0)
    cone = m.NonnegativeConeCpp(n)
    cone.project_into(base_in[off_in:off_in + n], base_out[off_out:off_out + n])
    gpu.synchronize()
    out = gpu.to_host(base_out)
    np.testing.assert_array_equal(out[off_out:off_out + n], host_project(cone, x))
    assert not np.signbit(out[off_out:off_out + n]).any()
    assert (out[:off_out] == -5.0).all() and (out[off_out + n:] == -5.0).all()


@pytest.mark.parametrize("n", [8, 6, 7])
def test_nonnegative_project_in_place(m, gpu, rng, n):
    x = rng.standard_normal(n)
    a = gpu.to_device(x)
    m.NonnegativeConeCpp(n).project_into(a, a)
    gpu.synchronize()
    np.testing.assert_array_equal(gpu.to_host(a), np.where(x > 0, x, 0.0))


@pytest.mark.parametrize("n", [1, 256, 257, 65536, 65537])
def test_nonnegative_reductions(m, gpu, rng, n):
    x = rng.standard_normal(n)
    cone = m.NonnegativeConeCpp(n)
    d = gpu.to_device(x)
    assert cone.violation(d) == pytest.approx(cone.violation(x), rel=1e-12, abs=0)
    y = np.abs(x)
    for where in sorted({0, n // 2, n - 1}):
        y[where] = -0.5
        dy = gpu.to_device(y)
        assert cone.contains(dy, 0.1) is False
        assert cone.contains(dy, 0.5) is True
        y[where] = 1.0


def test_nonnegative_device_nan_is_not_contained(m, gpu):
    # The device compares atol with a NaN maximum; the host never fails on NaN.
    x = np.array([1.0, np.nan, 2.0])
    cone = m.NonnegativeConeCpp(3)
    assert cone.contains(x) is True
    assert cone.contains(gpu.to_device(x)) is False


def test_empty_vectors(m, gpu):
    cone = m.NonnegativeConeCpp(0)
    empty = gpu.to_device(np.zeros(0))
    cone.project_into(empty, empty)
    assert cone.violation(empty) == 0.0
    assert cone.contains(empty, 0.0) is True
    assert cone.contains(empty, -1.0) is False


@pytest.mark.parametrize("blocks", [1, 255, 256, 257, 4097, 65537])
def test_exp_project_and_violation(m, gpu, rng, blocks):
    v = sample_blocks(rng, blocks)
    cone = m.ExponentialConeCpp(blocks)
    out = gpu.empty(3 * blocks)
    cone.project_into(gpu.to_device(v), out)
    gpu.synchronize()
    np.testing.assert_allclose(gpu.to_host(out), host_project(cone, v), rtol=1e-13, atol=0,
                               equal_nan=True)
    finite = np.nan_to_num(v, nan=0.5)
    finite = np.where(np.abs(finite) < 1e-6, 0.5, finite)  # no huge exp(x / y)
    assert cone.violation(gpu.to_device(finite)) == pytest.approx(cone.violation(finite),
                                                                   rel=1e-12)


def test_exp_project_in_place(m, gpu, rng):
    v = sample_blocks(rng, 1000)
    a = gpu.to_device(v)
    cone = m.ExponentialConeCpp(1000)
    cone.project_into(a, a)
    gpu.synchronize()
    np.testing.assert_allclose(gpu.to_host(a), host_project(cone, v), rtol=1e-13, equal_nan=True)


@pytest.mark.parametrize("blocks", [1, 1000, 70000])
def test_exp_contains(m, gpu, rng, blocks):
    v = interior_blocks(rng, blocks)
    cone = m.ExponentialConeCpp(blocks)
    assert cone.contains(gpu.to_device(v)) is True
    for where in sorted({0, blocks // 2, blocks - 1}):
        bad = v.copy()
        bad[3 * where + 1] = -1.0
        assert cone.contains(gpu.to_device(bad)) is False
    sample = sample_blocks(rng, blocks)
    assert cone.contains(gpu.to_device(sample), 1e-3) is cone.contains(sample, 1e-3)


@pytest.mark.parametrize("dim, batch", [(5, 7), (1, 1000), (40, 3)])
def test_nonnegative_scaling_batch(m, gpu, rng, dim, batch):
    s, z = rng.uniform(0.1, 3, dim * batch), rng.uniform(0.1, 3, dim * batch)
    cone = m.NonnegativeConeCpp(dim)
    host = np.empty(dim * dim * batch)
    cone.nt_scaling_matrix_batch_into(s, z, host, batch)
    out = gpu.empty(dim * dim * batch)
    cone.nt_scaling_matrix_batch_into(gpu.to_device(s), gpu.to_device(z), out, batch)
    gpu.synchronize()
    np.testing.assert_array_equal(gpu.to_host(out), host)


def test_nonnegative_scaling_device_has_no_positivity_test(m, gpu):
    out = gpu.empty(4)
    m.NonnegativeConeCpp(2).nt_scaling_matrix_into(gpu.to_device([0.0, -2.0]),
                                                   gpu.to_device([1.0, 1.0]), out)
    gpu.synchronize()
    assert gpu.to_host(out).tolist() == [np.inf, 0.0, 0.0, -0.5]


@pytest.mark.parametrize("blocks, batch", [(1, 1), (2, 3), (5, 40)])
def test_exp_scaling_batch(m, gpu, rng, blocks, batch):
    n = 3 * blocks
    s, z = interior_blocks(rng, blocks * batch), interior_blocks(rng, blocks * batch)
    cone = m.ExponentialConeCpp(blocks)
    host = np.empty(n * n * batch)
    cone.nt_scaling_matrix_batch_into(s, z, host, batch)
    out = gpu.empty(n * n * batch)
    cone.nt_scaling_matrix_batch_into(gpu.to_device(s), gpu.to_device(z), out, batch)
    gpu.synchronize()
    device = gpu.to_host(out)
    np.testing.assert_allclose(device, host, rtol=1e-13, atol=1e-15)
    np.testing.assert_array_equal(device == 0.0, host == 0.0)  # off-block entries are exactly 0.0
    if blocks == 2:
        assert device[3] == 0.0  # row 0, column 3


@pytest.mark.parametrize("cone_of", [lambda m: m.NonnegativeConeCpp(3),
                                     lambda m: m.ExponentialConeCpp(1)])
def test_zero_batch_is_a_no_op(m, gpu, cone_of):
    cone = cone_of(m)
    out = gpu.empty(0)
    cone.nt_scaling_matrix_batch_into(gpu.to_device(np.zeros(0)), gpu.to_device(np.zeros(0)), out,
                                      0)
    gpu.synchronize()
    assert gpu.to_host(out).size == 0


def make_stream(gpu):
    if gpu.name == "cupy":
        stream = gpu.lib.cuda.Stream(non_blocking=True)
        return stream.ptr, stream.synchronize
    stream = gpu.lib.cuda.Stream()
    return stream.cuda_stream, stream.synchronize


def test_enqueued_on_callers_stream(m, gpu, rng):
    handle, wait = make_stream(gpu)
    x = rng.standard_normal(3 * 500)
    s = interior_blocks(rng, 2)
    exp_cone, nn_cone, pair_cone = (m.ExponentialConeCpp(500), m.NonnegativeConeCpp(3 * 500),
                                    m.ExponentialConeCpp(2))
    d, ds = gpu.to_device(x), gpu.to_device(s)
    out_exp, out_nn, out_scaling = gpu.empty(x.size), gpu.empty(x.size), gpu.empty(36)
    gpu.synchronize()  # the copies above ran on the library's own stream
    exp_cone.project_into(d, out_exp, stream=handle)
    nn_cone.project_into(d, out_nn, stream=handle)
    pair_cone.nt_scaling_matrix_into(ds, ds, out_scaling, stream=handle)
    wait()
    np.testing.assert_allclose(gpu.to_host(out_exp), host_project(exp_cone, x), rtol=1e-13)
    np.testing.assert_array_equal(gpu.to_host(out_nn), host_project(nn_cone, x))
    np.testing.assert_allclose(gpu.to_host(out_scaling).reshape(6, 6), np.eye(6), atol=1e-15)
