"""Device paths of the nonnegative and exponential cones against the host
results. Needs a CUDA device (the `gpu` fixture skips otherwise)."""
import numpy as np
import pytest
from cone_cases import projected as host_project
from samples import interior_blocks, sample_blocks


# (n, input offset, output offset) in doubles from 256-byte aligned bases:
# offset 0 is 32-byte aligned, 2 is 16-byte aligned, 1 and 3 only 8-byte
# aligned; offset None projects in place.
WIDTHS = [(8, 0, 0), (6, 0, 0), (8, 2, 0), (8, 0, 1), (7, 0, 0), (1, 0, 0), (1 << 20, 0, 0),
          (1 << 20, 2, 2), (1 << 20, 1, 3), (100003, 0, 0), (0, 0, 0), (8, 0, None), (6, 1, None)]


@pytest.mark.parametrize("n, off_in, off_out", WIDTHS)
def test_nonnegative_project_all_widths(m, gpu, rng, n, off_in, off_out):
    x = rng.standard_normal(n)
    x[::7], x[1::11] = np.nan, -0.0
    base_in = gpu.to_device(np.concatenate([np.full(off_in, -5.0), x, np.full(8, -5.0)]))
    base_out = base_in if off_out is None else gpu.empty(n + off_out + 8, fill=-5.0)
    off_out = off_in if off_out is None else off_out
    cone = m.NonnegativeConeCpp(n)
    cone.project_into(base_in[off_in:off_in + n], base_out[off_out:off_out + n])
    gpu.synchronize()
    out = gpu.to_host(base_out)
    np.testing.assert_array_equal(out[off_out:off_out + n], host_project(cone, x))
    assert not np.signbit(out[off_out:off_out + n]).any()
    assert (out[:off_out] == -5.0).all() and (out[off_out + n:] == -5.0).all()


@pytest.mark.parametrize("n", [1, 256, 257, 65536, 65537])
def test_nonnegative_reductions(m, gpu, rng, n):
    x = rng.standard_normal(n)
    cone = m.NonnegativeConeCpp(n)
    assert cone.violation(gpu.to_device(x)) == pytest.approx(cone.violation(x), rel=1e-12)
    y = np.abs(x)
    for where in sorted({0, n // 2, n - 1}):
        y[where] = -0.5
        assert [cone.contains(gpu.to_device(y), a) for a in (0.1, 0.5)] == [False, True]
        y[where] = 1.0


def test_nonnegative_nan_and_empty(m, gpu):
    # The device compares atol with a NaN maximum; the host never fails on NaN.
    x = np.array([1.0, np.nan, 2.0])
    assert m.NonnegativeConeCpp(3).contains(x) is True
    assert m.NonnegativeConeCpp(3).contains(gpu.to_device(x)) is False
    cone, empty = m.NonnegativeConeCpp(0), gpu.to_device(np.zeros(0))
    cone.project_into(empty, empty)
    assert (cone.violation(empty), cone.contains(empty, 0.0), cone.contains(empty, -1.0)) == (
        0.0, True, False)


@pytest.mark.parametrize("blocks", [1, 255, 256, 257, 4097, 65537])
@pytest.mark.parametrize("in_place", [False, True])
def test_exp_project_and_violation(m, gpu, rng, blocks, in_place):
    v = sample_blocks(rng, blocks)
    cone = m.ExponentialConeCpp(blocks)
    np.testing.assert_allclose(gpu.project(cone, v, in_place), host_project(cone, v), rtol=1e-13,
                               atol=0, equal_nan=True)
    finite = np.nan_to_num(v, nan=0.5)
    finite[np.abs(finite) < 1e-6] = 0.5  # keeps exp(x / y) moderate
    assert cone.violation(gpu.to_device(finite)) == pytest.approx(cone.violation(finite),
                                                                   rel=1e-12)


@pytest.mark.parametrize("blocks", [1, 1000, 70000])
def test_exp_contains(m, gpu, rng, blocks):
    v = interior_blocks(rng, blocks)
    cone = m.ExponentialConeCpp(blocks)
    assert cone.contains(gpu.to_device(v)) is True
    for where in sorted({0, blocks // 2, blocks - 1}):  # whichever thread block holds it
        bad = v.copy()
        bad[3 * where + 1] = -1.0
        assert cone.contains(gpu.to_device(bad)) is False


@pytest.mark.parametrize("dim, batch", [(5, 7), (1, 1000), (40, 3), (3, 0)])
def test_nonnegative_scaling_batch(m, gpu, rng, dim, batch):
    s, z = rng.uniform(0.1, 3, dim * batch), rng.uniform(0.1, 3, dim * batch)
    cone = m.NonnegativeConeCpp(dim)
    host = np.empty(dim * dim * batch)
    cone.nt_scaling_matrix_batch_into(s, z, host, batch)
    np.testing.assert_array_equal(gpu.scaling(cone, s, z, batch), host)
    # No positivity test on the device: the quotients are written as they come.
    got = gpu.scaling(m.NonnegativeConeCpp(2), np.array([0.0, -2.0]), np.ones(2), 1)
    assert got.tolist() == [np.inf, 0.0, 0.0, -0.5]


@pytest.mark.parametrize("blocks, batch", [(1, 1), (2, 3), (5, 40), (1, 0)])
def test_exp_scaling_batch(m, gpu, rng, blocks, batch):
    s, z = interior_blocks(rng, blocks * batch), interior_blocks(rng, blocks * batch)
    cone = m.ExponentialConeCpp(blocks)
    host = np.empty(9 * blocks * blocks * batch)
    cone.nt_scaling_matrix_batch_into(s, z, host, batch)
    device = gpu.scaling(cone, s, z, batch)
    np.testing.assert_allclose(device, host, rtol=1e-13, atol=1e-15)
    np.testing.assert_array_equal(device == 0.0, host == 0.0)  # off-block entries exactly 0.0
    assert blocks != 2 or device[3] == 0.0  # row 0, column 3


def test_enqueued_on_callers_stream(m, gpu, rng):
    cupy = gpu.name == "cupy"
    stream = gpu.lib.cuda.Stream(non_blocking=True) if cupy else gpu.lib.cuda.Stream()
    handle = stream.ptr if cupy else stream.cuda_stream
    x = rng.standard_normal(3 * 500)
    exp_cone, nn_cone = m.ExponentialConeCpp(500), m.NonnegativeConeCpp(3 * 500)
    d, out_exp, out_nn = gpu.to_device(x), gpu.empty(x.size), gpu.empty(x.size)
    gpu.synchronize()  # the copies above ran on the library's own stream
    exp_cone.project_into(d, out_exp, stream=handle)
    nn_cone.project_into(d, out_nn, stream=handle)
    stream.synchronize()
    np.testing.assert_allclose(gpu.to_host(out_exp), host_project(exp_cone, x), rtol=1e-13)
    np.testing.assert_array_equal(gpu.to_host(out_nn), host_project(nn_cone, x))
    s = interior_blocks(rng, 2)
    np.testing.assert_allclose(gpu.scaling(m.ExponentialConeCpp(2), s, s, 1, stream=handle),
                               np.eye(6).ravel(), atol=1e-15)
