"""Second-order NT scaling on the host: W s = z, agreement with a dense NumPy
version of the Jordan-algebra formulas, the documented examples, every
result form with the same bits, and the partial writes of a failing batch."""
import numpy as np
import pytest
from cone_cases import assert_scaling_fails, scaling_of
from samples import soc_interior, soc_interior_batch

NOT_INTERIOR = "SOC NT scaling requires strictly interior cone vectors"


def jordan_power(x, p):
    r = np.linalg.norm(x[1:])
    l1, l2 = x[0] + r, x[0] - r
    y = np.zeros_like(x)
    y[0] = (l1 ** p + l2 ** p) / 2
    if r > 0:
        y[1:] = (l1 ** p - l2 ** p) / 2 * x[1:] / r
    return y


def quad_matrix(a):
    """P(a) = 2 a a^T - det(a) R as a dense matrix."""
    reflect = -np.eye(len(a))
    reflect[0, 0] = 1.0
    return 2 * np.outer(a, a) - (a[0] ** 2 - a[1:] @ a[1:]) * reflect


def reference_w(s, z):
    a = jordan_power(s, -0.5)
    g = jordan_power(quad_matrix(a) @ z, 0.5)
    return quad_matrix(jordan_power(s, 0.5)) @ quad_matrix(g) @ quad_matrix(a)


@pytest.mark.parametrize("n", [1, 2, 5, 9, 300])
def test_matches_dense_formulas_and_maps_s_to_z(m, rng, n):
    s, z = soc_interior(n, rng), soc_interior(n, rng, margin=3.0)
    w = scaling_of(m.SecondOrderConeCpp(n), s, z).reshape(n, n)  # every form, the same bits
    np.testing.assert_allclose(w, reference_w(s, z), rtol=1e-11, atol=1e-12)
    np.testing.assert_allclose(w @ s, z, rtol=1e-11, atol=1e-12)


@pytest.mark.parametrize("s,z,expected", [
    ([4.0], [2.0], [[0.5]]), ([1.0, 0.0, 0.0], [2.0, 0.0, 0.0], 2 * np.eye(3)),
    ([2.0, 1.0], [1.0, 0.0], [[2 / 3, -1 / 3], [-1 / 3, 2 / 3]]),
    ([3.0, 0.4, -1.2, 0.5], [3.0, 0.4, -1.2, 0.5], np.eye(4))])
def test_documented_examples(m, s, z, expected):
    w = m.SecondOrderConeCpp(len(s)).nt_scaling_matrix_array(np.array(s), np.array(z))
    np.testing.assert_allclose(w, expected, rtol=1e-14, atol=1e-15)


@pytest.mark.parametrize("s,z", [
    ([5.0, 3.0, 4.0], [2.0, 0.0, 0.0]), ([2.0, 0.0, 0.0], [5.0, -3.0, 4.0]),  # on the boundary
    ([np.nan, 0.0, 0.0], [2.0, 0.0, 0.0]), ([2.0, 0.0, 0.0], [1.0, np.nan, 0.0]),
    ([-2.0, 0.0, 0.0], [2.0, 0.0, 0.0]), ([0.0], [1.0]), ([1.0], [-1e-300])])
def test_rejects_points_not_strictly_interior(m, s, z):
    assert_scaling_fails(m.SecondOrderConeCpp(len(s)), np.array(s), np.array(z), NOT_INTERIOR)


def test_batch_failure_keeps_earlier_items_only(m, rng):
    n, batch = 3, 3
    cone = m.SecondOrderConeCpp(n)
    s, z = soc_interior_batch(n, batch, rng)
    z[n:2 * n] = [5.0, 3.0, 4.0]
    out = np.full(n * n * batch, 7.0)
    with pytest.raises(RuntimeError, match=f"^{NOT_INTERIOR}$"):
        cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    assert np.array_equal(out[:n * n], cone.nt_scaling_matrix_array(s[:n], z[:n]).ravel())
    assert (out[n * n:] == 7.0).all()


@pytest.mark.parametrize("batch", [0, 3])
def test_cublas_method_refuses_host_arrays(m, batch):
    with pytest.raises(RuntimeError, match="^SOC cuBLAS NT scaling requires CUDA arrays$"):
        m.SecondOrderConeCpp(2).nt_scaling_matrix_batch_cublas_into(
            np.ones(2 * batch), np.ones(2 * batch), np.zeros(4 * batch), batch)
