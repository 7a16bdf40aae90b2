"""svec/smat packing on the host: exact values (x sqrt(2) on packing,
/ sqrt(2) on unpacking, both triangles written), round trips and the trace
inner product, the four module functions, and their messages in check
order."""
import numpy as np
import pytest

from cone_cases import MARK, RUNTIME, SAME_OUT, dev, h
from fake_dlpack import CUDA_HOST, CUDA_MANAGED

R2 = 1.4142135623730951


def test_exact_values_of_three_by_three(m):
    a = np.arange(1.0, 10.0)     # the strict upper triangle is ignored
    expected = [1.0, 4.0 * R2, 5.0, 7.0 * R2, 8.0 * R2, 9.0]
    assert list(m.psd_svec(a, 3)) == expected
    m.psd_svec_into(a, a[:6], 3)   # into an overlapping output
    assert list(a[:6]) == expected
    x = np.arange(1.0, 7.0)
    expected = np.array([[1.0, 2.0 / R2, 4.0 / R2], [2.0 / R2, 3.0, 5.0 / R2],
                         [4.0 / R2, 5.0 / R2, 6.0]])
    out = np.empty(9)
    m.psd_smat_into(x, out, 3)
    assert np.array_equal(m.psd_smat(x, 3), expected) and np.array_equal(out, expected.ravel())


@pytest.mark.parametrize("n", [0, 1, 2, 5, 16])
def test_round_trips(m, rng, n):
    a = rng.standard_normal((n, n))
    lower = np.tril(a) + np.tril(a, -1).T
    assert np.allclose(m.psd_smat(m.psd_svec(a.ravel(), n), n), lower, rtol=1e-15, atol=0)
    x, y = rng.standard_normal((2, n * (n + 1) // 2))
    assert np.allclose(m.psd_svec(m.psd_smat(x, n).ravel(), n), x, rtol=1e-15, atol=0)
    assert np.sum(m.psd_smat(x, n) * m.psd_smat(y, n)) == pytest.approx(x @ y, rel=1e-12)


@pytest.mark.parametrize("call", [
    lambda m: m.psd_svec_into(np.zeros(1), np.zeros(0), 2**64 - 1),   # n * n wraps round to 1
    lambda m: m.psd_smat_into(np.zeros(0), np.zeros(1), 2**64 - 1),
    lambda m: m.psd_svec(np.zeros(0), 2**32),
    lambda m: m.PsdConeCpp(2**64 - 1),                                # rows would wrap to 0
])
def test_orders_whose_sizes_overflow_are_refused(m, call):
    with pytest.raises(ValueError, match="^PSD matrix order too large: dim \\* dim overflows$"):
        call(m)


@pytest.mark.parametrize("function, args, message", [
    ("psd_svec_into", (h(8), h(7), 3), "matrix expected 9 entries, got 8"),
    ("psd_svec_into", (dev(9, CUDA_HOST), h(7), 3), "matrix must be on CPU or CUDA"),
    ("psd_svec_into", (h(9), h(7), 3), "output expected 6 entries, got 7"),
    ("psd_svec_into", (h(9), dev(6), 3), SAME_OUT),
    ("psd_smat_into", (h(6), dev(9, CUDA_MANAGED), 3), "output must be on CPU or CUDA"),
    ("psd_smat_into", (dev(6), h(9), 3), SAME_OUT),
    ("psd_svec", (h(4), 3), "matrix expected 9 entries, got 4"),
    ("psd_svec", (dev(9), 3), "matrix must be a CPU vector for dense NT scaling"),
    ("psd_smat", (dev(6, CUDA_HOST), 3), "svec must be on CPU or CUDA"),
    ("psd_svec_into", (dev(9), dev(6), 3), RUNTIME),
    ("psd_smat_into", (dev(6), dev(9), 3), RUNTIME),
])
def test_messages_in_check_order_touch_nothing(m, function, args, message):
    if message == RUNTIME and m.has_cuda():
        pytest.skip("fake device arrays must not reach a real device")
    with pytest.raises(RuntimeError) as err:
        getattr(m, function)(*args)
    assert str(err.value) == message
    assert all((getattr(a, "host", a) == MARK).all() for a in args[:-1])
