"""Second-order NT scaling on the host: W s = z, agreement with a dense NumPy
version of the Jordan-algebra formulas, the documented examples, every
result form and the method query."""
import math

import numpy as np
import pytest
from cone_cases import assert_batch_matches_items, assert_scaling_fails, scaling_of
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


def exact_w(s, z):
    """The host algorithm step by step in Python floats, each product and sum
    rounded on its own in the documented order: the module must give the
    same bits."""
    n = len(s)

    def tail_dot(a, v):
        total = 0.0
        for i in range(1, n):
            total += a[i] * v[i]
        return total

    def power(x, p):
        r = math.sqrt(tail_dot(x, x))
        p1, p2 = math.pow(x[0] + r, p), math.pow(x[0] - r, p)
        k = (p1 - p2) * 0.5 / r if r > 0 else 0.0
        return [(p1 + p2) * 0.5] + [k * x[i] if r > 0 else 0.0 for i in range(1, n)]

    def quad(a, v):
        head_sq, tail = a[0] * a[0], tail_dot(a, a)
        det, t, d = head_sq - tail, 2.0 * a[0], tail_dot(a, v)
        return [(head_sq + tail) * v[0] + t * d] + [
            det * v[i] + t * a[i] * v[0] + 2.0 * a[i] * d for i in range(1, n)]

    a, b = power(s, -0.5), power(s, 0.5)
    g = power(quad(a, z), 0.5)
    head_sq, tail = a[0] * a[0], tail_dot(a, a)
    w = np.zeros((n, n))
    for j in range(n):
        if j == 0:
            p = [head_sq + tail] + [2.0 * a[0] * a[i] for i in range(1, n)]
        else:
            p = [2.0 * a[i] * a[j] for i in range(n)]
            p[j] += head_sq - tail
        w[:, j] = quad(b, quad(g, p))
    return w


@pytest.mark.parametrize("n", [1, 2, 5, 300])
def test_matches_dense_formulas_and_maps_s_to_z(m, rng, n):
    s, z = soc_interior(n, rng), soc_interior(n, rng, margin=3.0)
    w = m.SecondOrderConeCpp(n).nt_scaling_matrix_array(s, z)
    assert w.shape == (n, n)
    np.testing.assert_allclose(w, reference_w(s, z), rtol=1e-11, atol=1e-12)
    np.testing.assert_allclose(w @ s, z, rtol=1e-11, atol=1e-12)


@pytest.mark.parametrize("n", [1, 2, 3, 5, 6, 9, 40])
def test_follows_the_documented_evaluation_order(m, rng, n):
    s, z = soc_interior(n, rng).tolist(), soc_interior(n, rng, margin=3.0).tolist()
    w = scaling_of(m.SecondOrderConeCpp(n), np.array(s), np.array(z))  # every form
    np.testing.assert_array_equal(w, exact_w(s, z).ravel())


@pytest.mark.parametrize("s,z,expected", [
    ([4.0], [2.0], [[0.5]]), ([1.0, 0.0, 0.0], [2.0, 0.0, 0.0], 2 * np.eye(3)),
    ([2.0, 1.0], [1.0, 0.0], [[2 / 3, -1 / 3], [-1 / 3, 2 / 3]]),
    ([3.0, 0.4, -1.2, 0.5], [3.0, 0.4, -1.2, 0.5], np.eye(4))])
def test_documented_examples(m, s, z, expected):
    w = m.SecondOrderConeCpp(len(s)).nt_scaling_matrix_array(np.array(s), np.array(z))
    np.testing.assert_allclose(w, expected, rtol=1e-14, atol=1e-15)


@pytest.mark.parametrize("method", ["nt_scaling_matrix_batch_into",
                                    "nt_scaling_matrix_batch_custom_into"])
def test_batch_items_are_the_single_forms(m, rng, method):
    s, z = soc_interior_batch(6, 5, rng)
    assert_batch_matches_items(m.SecondOrderConeCpp(6), s, z, 5, method)


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


@pytest.mark.parametrize("dim,batch,method", [
    (32, 16, "cublas"), (32, 15, "custom"), (33, 10000, "custom"), (1, 16, "cublas"),
    (2, 0, "custom"), (8, 1, "custom"),
])
def test_default_method(m, dim, batch, method):
    assert m.SecondOrderConeCpp(dim).nt_scaling_matrix_default_method(batch) == method
    assert m.SecondOrderConeCpp(dim).nt_scaling_matrix_default_method() == "custom"


@pytest.mark.parametrize("batch", [0, 3])
def test_cublas_method_refuses_host_arrays(m, batch):
    with pytest.raises(RuntimeError, match="^SOC cuBLAS NT scaling requires CUDA arrays$"):
        m.SecondOrderConeCpp(2).nt_scaling_matrix_batch_cublas_into(
            np.ones(2 * batch), np.ones(2 * batch), np.zeros(4 * batch), batch)
