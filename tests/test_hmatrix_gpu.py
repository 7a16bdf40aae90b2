"""Sparse Hessian fills on CUDA arrays against the host fills on the same
patterns (every cone, both layouts), malformed patterns (nothing written
outside `values`, the documented skipping rule), the device-path indptr
check, no input validation on the device, and a non-default stream.
Skipped without a usable GPU and CuPy or PyTorch."""
import numpy as np
import pytest
from sparse_patterns import (CONE_IDS, CONES, KINDS, LAYOUTS, MALFORMED, PATTERNS, dense_h,
                             device_rule, fill, fill_point, index_arrays, pattern)

I64 = np.int64
EXACT = {"zero", "nonnegative"}  # quotients and constants: the same bits on both sides


def to_device(gpu, s, z, first, second, values):
    arrays = (gpu.to_device(s), gpu.to_device(z), gpu.to_device(first, I64),
              gpu.to_device(second, I64), gpu.to_device(values))
    gpu.synchronize()  # the copies ran on the library's own stream
    return arrays


def device_fill(gpu, cone, layout, s, z, first, second, initial, offset, stream=0):
    ds, dz, dfirst, dsecond, dv = to_device(gpu, s, z, first, second, initial)
    fill(cone, layout, ds, dz, dfirst, dsecond, dv, offset, stream)
    gpu.synchronize()
    return gpu.to_host(dv)


def assert_matches_host(kind, got, host):
    if kind in EXACT:
        np.testing.assert_array_equal(got, host)
    else:
        np.testing.assert_allclose(got, host, rtol=1e-12, atol=1e-13)
        np.testing.assert_array_equal(got == 0.0, host == 0.0)


@pytest.mark.parametrize("offset", [0, 3])
@pytest.mark.parametrize("shape", PATTERNS)
@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("kind, order", CONES, ids=CONE_IDS)
def test_device_fill_matches_host_fill(m, gpu, rng, kind, order, layout, shape, offset):
    cone, s, z = fill_point(m, kind, rng, order)
    size = offset + cone.rows + 2
    first, second, rows_of, _ = index_arrays(layout, pattern(shape, size, offset, cone.rows, rng),
                                             rng)
    initial = rng.standard_normal(len(second))
    host = initial.copy()
    fill(cone, layout, s, z, first, second, host, offset)
    got = device_fill(gpu, cone, layout, s, z, first, second, initial, offset)
    assert_matches_host(kind, got, host)
    other_rows = (rows_of < offset) | (rows_of >= offset + cone.rows)
    np.testing.assert_array_equal(got[other_rows], initial[other_rows])


def run_guarded(gpu, cone, layout, s, z, first, second, initial, offset, guard=6):
    """The fill on device copies, `values` a slice between guard entries;
    returns the whole guarded array."""
    nnz = len(initial)
    base = gpu.to_device(np.concatenate([np.full(guard, -7.0), initial, np.full(guard, -7.0)]))
    ds, dz, dfirst, dsecond, _ = to_device(gpu, s, z, first, second, initial)
    fill(cone, layout, ds, dz, dfirst, dsecond, base[guard:guard + nnz], offset)
    gpu.synchronize()  # a fault inside the kernel would surface here
    got = gpu.to_host(base)
    assert (got[:guard] == -7.0).all() and (got[guard + nnz:] == -7.0).all()
    return got[guard:guard + nnz]


@pytest.mark.parametrize("kind", ["nonnegative", "second-order", "psd"])
@pytest.mark.parametrize("layout, first, second", MALFORMED)
def test_malformed_patterns_write_only_inside_values(m, gpu, rng, kind, layout, first, second):
    """Direct, SOC dense gather and PSD (order 2) dense gather, 3 rows at row_offset 1."""
    cone, s, z = fill_point(m, kind, rng, 2)
    if kind == "nonnegative":
        cone, s, z = m.NonnegativeConeCpp(3), s[:3], z[:3]
    elif kind == "second-order":
        cone, s, z = m.SecondOrderConeCpp(3), np.array([3.0, 1.0, 0.5]), np.array([2.0, 0.3, -0.4])
    first, second = np.array(first, I64), np.array(second, I64)
    initial = rng.standard_normal(len(second))
    got = run_guarded(gpu, cone, layout, s, z, first, second, initial, 1)
    expected = device_rule(layout, first, second, len(second), 1, dense_h(cone, s, z), initial)
    assert_matches_host(kind, got, expected)


@pytest.mark.parametrize("layout", LAYOUTS)
def test_malformed_pattern_in_the_psd_w_gather(m, gpu, rng, layout):
    cone, s, z = fill_point(m, "psd", rng, 3)  # 6 rows, at row_offset 2
    if layout == "csr":
        first = np.array([0, 0, 3, 1, 40, -2, 9, 12, 12], I64)   # decreasing, beyond, negative
        second = np.array([2, 3, 4, -1, 7, 8, 2**62, 5, 6, 7, 2, 3], I64)
    else:
        first = np.array([2, -3, 7, 2**62, 3, 4, 5, 6, 7, 8, 1, 2], I64)
        second = np.array([7, 2, -1, 3, 2**62, 4, 5, 6, 7, 8, 3, 2], I64)
    initial = rng.standard_normal(len(second))
    got = run_guarded(gpu, cone, layout, s, z, first, second, initial, 2)
    expected = device_rule(layout, first, second, len(second), 2, dense_h(cone, s, z), initial)
    assert_matches_host("psd", got, expected)


def test_device_path_checks_the_indptr_length_and_no_inputs(m, gpu):
    cone = m.ZeroConeCpp(3)
    nonzero = np.full(3, 5.0)
    args = to_device(gpu, nonzero, nonzero, np.array([0, 1, 2], I64), np.arange(3, dtype=I64),
                     np.full(3, 9.0))
    with pytest.raises(RuntimeError, match="^CSR indptr is too short for the requested cone "
                                           "row range$"):
        cone.hmatrix_csr_values_into(*args)
    assert (gpu.to_host(args[-1]) == 9.0).all()
    # s and z are not looked at: the identity whatever they hold.
    args = to_device(gpu, nonzero, nonzero, np.array([0, 1, 2, 3], I64), np.arange(3, dtype=I64),
                     np.full(3, 9.0))
    cone.hmatrix_csr_values_into(*args)
    gpu.synchronize()
    assert gpu.to_host(args[-1]).tolist() == [1.0, 1.0, 1.0]
    # Nor positivity: 1 / 0 is written as it comes.
    args = to_device(gpu, np.array([0.0]), np.ones(1), np.zeros(1, I64), np.zeros(1, I64),
                     np.zeros(1))
    m.NonnegativeConeCpp(1).hmatrix_coo_values_into(*args)
    gpu.synchronize()
    assert gpu.to_host(args[-1]).tolist() == [np.inf]
    # A PSD pair that is not positive definite: NaN in the block, 0.0 beside it.
    for n in (2, 3):
        rows = n * (n + 1) // 2
        s = m.psd_svec(np.diag(np.r_[1.0, -1.0, np.ones(n - 2)]).ravel(), n)
        args = to_device(gpu, s, np.ones(rows), np.array([0, 2], I64), np.array([0, rows], I64),
                         np.zeros(2))
        m.PsdConeCpp(n).hmatrix_coo_values_into(*args)
        gpu.synchronize()
        got = gpu.to_host(args[-1])
        assert np.isnan(got[0]) and got[1] == 0.0


@pytest.mark.parametrize("layout", LAYOUTS)
def test_empty_fills_touch_nothing(m, gpu, layout):
    cone = m.SecondOrderConeCpp(2)
    s = np.array([2.0, 1.0])
    first = np.zeros(3 if layout == "csr" else 0, I64)
    args = to_device(gpu, s, s, first, np.zeros(0, I64), np.zeros(0))
    fill(cone, layout, *args)
    args = to_device(gpu, np.zeros(0), np.zeros(0), np.zeros(1 if layout == "csr" else 2, I64),
                     np.zeros(2, I64), np.full(2, 4.0))
    fill(m.ZeroConeCpp(0), layout, *args)
    gpu.synchronize()
    assert gpu.to_host(args[-1]).tolist() == [4.0, 4.0]


@pytest.mark.parametrize("layout", LAYOUTS)
def test_fills_run_on_the_callers_stream(m, gpu, rng, layout):
    cupy = gpu.name == "cupy"
    stream = gpu.lib.cuda.Stream(non_blocking=True) if cupy else gpu.lib.cuda.Stream()
    handle = stream.ptr if cupy else stream.cuda_stream
    for kind in KINDS:
        cone, s, z = fill_point(m, kind, rng)
        first, second, _, _ = index_arrays(layout, pattern("wide", cone.rows + 3, 2, cone.rows,
                                                           rng), rng)
        initial = rng.standard_normal(len(second))
        host = initial.copy()
        fill(cone, layout, s, z, first, second, host, 2)
        ds, dz, dfirst, dsecond, dv = to_device(gpu, s, z, first, second, initial)
        fill(cone, layout, ds, dz, dfirst, dsecond, dv, 2, handle)
        stream.synchronize()
        assert_matches_host(kind, gpu.to_host(dv), host)
