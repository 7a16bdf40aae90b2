"""svec/smat packing on the host: exact values (x sqrt(2) on packing,
/ sqrt(2) on unpacking), round trips, the four module functions, and their
messages in check order."""
import numpy as np
import pytest

import fake_dlpack as fake
from dravik.mirel.cones.cpp import _cpp_cuda

R2 = 1.4142135623730951


def test_svec_layout_of_three_by_three(m):
    a = np.arange(1.0, 10.0).reshape(3, 3)     # the strict upper triangle is ignored
    expected = [1.0, 4.0 * R2, 5.0, 7.0 * R2, 8.0 * R2, 9.0]
    out = np.empty(6)
    m.psd_svec_into(a.ravel(), out, 3)
    assert list(m.psd_svec(a.ravel(), 3)) == expected and list(out) == expected


def test_smat_divides_and_writes_both_triangles(m):
    x = np.array([1.0, 2.0, 3.0, 4.0, 5.0, 6.0])
    expected = np.array([[1.0, 2.0 / R2, 4.0 / R2], [2.0 / R2, 3.0, 5.0 / R2],
                         [4.0 / R2, 5.0 / R2, 6.0]])
    out = np.empty(9)
    m.psd_smat_into(x, out, 3)
    result = m.psd_smat(x, 3)
    assert result.shape == (3, 3) and np.array_equal(result, expected)
    assert np.array_equal(out, expected.ravel())


@pytest.mark.parametrize("n", [1, 2, 5, 16])
def test_round_trips(m, rng, n):
    a = rng.standard_normal((n, n))
    lower = np.tril(a) + np.tril(a, -1).T
    assert np.allclose(m.psd_smat(m.psd_svec(a.ravel(), n), n), lower, rtol=1e-15, atol=0)
    x = rng.standard_normal(n * (n + 1) // 2)
    assert np.allclose(m.psd_svec(m.psd_smat(x, n).ravel(), n), x, rtol=1e-15, atol=0)
    # Trace inner product equals the svec dot product.
    y = rng.standard_normal(x.size)
    assert np.sum(m.psd_smat(x, n) * m.psd_smat(y, n)) == pytest.approx(x @ y, rel=1e-12)


def test_svec_into_an_overlapping_output(m):
    buffer = np.arange(1.0, 10.0)
    m.psd_svec_into(buffer, buffer[:6], 3)
    assert list(buffer[:6]) == [1.0, 4.0 * R2, 5.0, 7.0 * R2, 8.0 * R2, 9.0]


def test_dim_zero_gives_empty_results(m):
    assert m.psd_svec(np.zeros(0), 0).shape == (0,)
    assert m.psd_smat(np.zeros(0), 0).shape == (0, 0)
    m.psd_smat_into(np.zeros(0), np.zeros(0), 0)


@pytest.mark.parametrize("call", [
    lambda m: m.psd_svec_into(np.zeros(1), np.zeros(0), 2**64 - 1),   # n * n wraps round to 1
    lambda m: m.psd_smat_into(np.zeros(0), np.zeros(1), 2**64 - 1),
    lambda m: m.psd_svec(np.zeros(0), 2**32),
    lambda m: m.PsdConeCpp(2**64 - 1),                                # rows would wrap to 0
    lambda m: m._jacobi_eigh(np.zeros(0), 2**32),
])
def test_orders_whose_sizes_overflow_are_refused(m, call):
    with pytest.raises(ValueError, match="^PSD matrix order too large: dim \\* dim overflows$"):
        call(m)


def test_functions_come_last_in_registration_order(m):
    names = [n for n in vars(m) if not n.startswith("_")]
    assert names[-4:] == ["psd_smat", "psd_svec", "psd_smat_into", "psd_svec_into"]
    assert "stream: int = 0" in m.psd_svec_into.__doc__


@pytest.mark.parametrize("call, message", [
    (lambda m: m.psd_svec_into(np.zeros(8), np.zeros(7), 3), "matrix expected 9 entries, got 8"),
    (lambda m: m.psd_svec_into(fake.on_device(9, fake.CUDA_HOST), np.zeros(7), 3),
     "matrix must be on CPU or CUDA"),
    (lambda m: m.psd_svec_into(np.zeros(9), np.zeros(7), 3), "output expected 6 entries, got 7"),
    (lambda m: m.psd_svec_into(np.zeros(9), fake.cuda(6), 3),
     "input and output must live on the same device"),
    (lambda m: m.psd_smat_into(np.zeros(5), np.zeros(9), 3), "svec expected 6 entries, got 5"),
    (lambda m: m.psd_smat_into(np.zeros(6), fake.on_device(9, fake.CUDA_MANAGED), 3),
     "output must be on CPU or CUDA"),
    (lambda m: m.psd_smat_into(fake.cuda(6), np.zeros(9), 3),
     "input and output must live on the same device"),
    (lambda m: m.psd_svec(np.zeros(4), 3), "matrix expected 9 entries, got 4"),
    (lambda m: m.psd_svec(fake.cuda(9), 3), "matrix must be a CPU vector for dense NT scaling"),
    (lambda m: m.psd_smat(fake.cuda(6), 3), "svec must be a CPU vector for dense NT scaling"),
    (lambda m: m.psd_smat(fake.on_device(6, fake.CUDA_HOST), 3), "svec must be on CPU or CUDA"),
])
def test_messages_in_check_order(m, call, message):
    with pytest.raises(RuntimeError) as err:
        call(m)
    assert str(err.value) == message


@pytest.mark.skipif(_cpp_cuda.has_cuda(), reason="with a usable CUDA device the kernel would run")
@pytest.mark.parametrize("function, sizes", [("psd_svec_into", (9, 6)), ("psd_smat_into", (6, 9))])
def test_device_arrays_need_the_runtime(m, function, sizes):
    with pytest.raises(RuntimeError, match="^CUDA runtime is required for CUDA cone arrays$"):
        getattr(m, function)(fake.cuda(sizes[0]), fake.cuda(sizes[1]), 3)
