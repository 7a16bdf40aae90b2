"""Second-order NT scaling on the host: W s = z, agreement with a dense NumPy
version of the Jordan-algebra formulas, the documented examples, every
result form, thread-count independence, the method query and the checks."""
import math

import numpy as np
import pytest

import fake_dlpack as fake
from conftest import run_python

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


def interior(n, rng, margin=0.5):
    x = rng.standard_normal(n)
    x[0] = np.linalg.norm(x[1:]) * (1 + margin) + 0.1
    return x


def interior_batch(n, batch, rng):
    s = np.concatenate([interior(n, rng) for _ in range(batch)])
    z = np.concatenate([interior(n, rng, margin=2.0) for _ in range(batch)])
    return s, z


@pytest.mark.parametrize("n", [1, 2, 3, 5, 33, 300])
def test_matches_dense_formulas_and_maps_s_to_z(m, rng, n):
    s, z = interior(n, rng), interior(n, rng, margin=3.0)
    w = m.SecondOrderConeCpp(n).nt_scaling_matrix_array(s, z)
    assert w.shape == (n, n)
    np.testing.assert_allclose(w, reference_w(s, z), rtol=1e-11, atol=1e-12)
    np.testing.assert_allclose(w @ s, z, rtol=1e-11, atol=1e-12)


@pytest.mark.parametrize("n", [1, 2, 3, 5, 6, 9, 40])
def test_follows_the_documented_evaluation_order(m, rng, n):
    s, z = interior(n, rng).tolist(), interior(n, rng, margin=3.0).tolist()
    w = m.SecondOrderConeCpp(n).nt_scaling_matrix_array(np.array(s), np.array(z))
    np.testing.assert_array_equal(w, exact_w(s, z))


@pytest.mark.parametrize("s,z,expected", [
    ([4.0], [2.0], [[0.5]]),
    ([1.0, 0.0, 0.0], [2.0, 0.0, 0.0], 2 * np.eye(3)),
    ([2.0, 1.0], [1.0, 0.0], [[2 / 3, -1 / 3], [-1 / 3, 2 / 3]]),
    ([3.0, 0.4, -1.2, 0.5], [3.0, 0.4, -1.2, 0.5], np.eye(4)),
])
def test_documented_examples(m, s, z, expected):
    w = m.SecondOrderConeCpp(len(s)).nt_scaling_matrix_array(np.array(s), np.array(z))
    np.testing.assert_allclose(w, expected, rtol=1e-14, atol=1e-15)


def test_not_symmetrised(m):
    s, z = np.array([3.0, 1.0, 0.5, -1.0]), np.array([2.0, 0.3, -0.4, 0.8])
    w = m.SecondOrderConeCpp(4).nt_scaling_matrix_array(s, z)
    assert w[0, 1] == pytest.approx(-0.2424, abs=1e-4)
    assert w[1, 0] == pytest.approx(-0.0835, abs=1e-4)
    np.testing.assert_allclose(w @ s, z, rtol=1e-14, atol=1e-15)


def test_every_form_gives_the_same_bits(m, rng):
    n, batch = 6, 4
    cone = m.SecondOrderConeCpp(n)
    s, z = interior_batch(n, batch, rng)
    singles = [cone.nt_scaling_matrix_array(s[b * n:(b + 1) * n], z[b * n:(b + 1) * n])
               for b in range(batch)]
    assert cone.nt_scaling_matrix(s[:n], z[:n]) == singles[0].ravel().tolist()
    into = np.full(n * n, np.nan)
    cone.nt_scaling_matrix_into(s[:n], z[:n], into)
    assert np.array_equal(into, singles[0].ravel())
    for method in (cone.nt_scaling_matrix_batch_into, cone.nt_scaling_matrix_batch_custom_into):
        out = np.full(n * n * batch, np.nan)
        method(s, z, out, batch)
        assert np.array_equal(out, np.concatenate([w.ravel() for w in singles]))


@pytest.mark.parametrize("n", [256, 300])
def test_column_team_does_not_change_bits(n):
    code = f"""
import hashlib
import numpy as np
from dravik.mirel.cones.cpp import _cpp_cuda as m
rng = np.random.default_rng(3)
s, z = rng.standard_normal({n}), rng.standard_normal({n})
s[0], z[0] = 2 * np.linalg.norm(s[1:]), 3 * np.linalg.norm(z[1:])
w = m.SecondOrderConeCpp({n}).nt_scaling_matrix_array(s, z)
print(hashlib.sha256(w.tobytes()).hexdigest())
"""
    digests = {threads: run_python(code, OMP_NUM_THREADS=threads) for threads in (1, 2, 3)}
    assert digests[1] == digests[2] == digests[3]


@pytest.mark.parametrize("s,z", [
    ([5.0, 3.0, 4.0], [2.0, 0.0, 0.0]),       # s on the boundary
    ([2.0, 0.0, 0.0], [5.0, -3.0, 4.0]),      # z on the boundary
    ([np.nan, 0.0, 0.0], [2.0, 0.0, 0.0]),
    ([2.0, 0.0, 0.0], [1.0, np.nan, 0.0]),
    ([-2.0, 0.0, 0.0], [2.0, 0.0, 0.0]),
    ([0.0], [1.0]),
    ([1.0], [-1e-300]),
])
def test_rejects_points_not_strictly_interior(m, s, z):
    cone = m.SecondOrderConeCpp(len(s))
    s, z = np.array(s), np.array(z)
    n = len(s)
    for call in (cone.nt_scaling_matrix, cone.nt_scaling_matrix_array):
        with pytest.raises(RuntimeError, match=f"^{NOT_INTERIOR}$"):
            call(s, z)
    out = np.full(n * n, 7.0)
    for method in (cone.nt_scaling_matrix_batch_into, cone.nt_scaling_matrix_batch_custom_into):
        with pytest.raises(RuntimeError, match=f"^{NOT_INTERIOR}$"):
            method(s, z, out, 1)
    with pytest.raises(RuntimeError, match=f"^{NOT_INTERIOR}$"):
        cone.nt_scaling_matrix_into(s, z, out)
    assert (out == 7.0).all()


def test_batch_failure_keeps_earlier_items_only(m, rng):
    n, batch = 3, 3
    cone = m.SecondOrderConeCpp(n)
    s, z = interior_batch(n, batch, rng)
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


@pytest.mark.parametrize("batch", [0, 1, 3])
def test_cublas_method_refuses_host_arrays(m, batch):
    with pytest.raises(RuntimeError, match="^SOC cuBLAS NT scaling requires CUDA arrays$"):
        m.SecondOrderConeCpp(2).nt_scaling_matrix_batch_cublas_into(
            np.ones(2 * batch), np.ones(2 * batch), np.zeros(4 * batch), batch)


def test_empty_batch_writes_nothing(m):
    m.SecondOrderConeCpp(3).nt_scaling_matrix_batch_into(np.empty(0), np.empty(0), np.empty(0), 0)


SAME_INPUTS = "input vectors must live on the same device"
SAME = "input and output must live on the same device"
RUNTIME = "CUDA runtime is required for CUDA cone arrays"
GOOD_S, GOOD_Z = np.array([2.0, 0.5, 0.0] * 2), np.array([3.0, 0.0, 1.0] * 2)


@pytest.mark.parametrize("s,z,out,message", [
    (np.ones(5), GOOD_Z, np.zeros(18), "s expected 6 entries, got 5"),
    (GOOD_S, fake.on_device(7, fake.CUDA), np.zeros(18), "z expected 6 entries, got 7"),
    (GOOD_S, GOOD_Z, fake.cuda(17), "output expected 18 entries, got 17"),
    (fake.on_device(6, fake.CUDA_HOST), GOOD_Z, np.zeros(18), "s must be on CPU or CUDA"),
    (GOOD_S, GOOD_Z, fake.on_device(18, fake.CUDA_MANAGED), "output must be on CPU or CUDA"),
    (fake.cuda(GOOD_S), GOOD_Z, fake.cuda(18), SAME_INPUTS),
    (fake.cuda(GOOD_S), fake.cuda(GOOD_Z, device_id=1), fake.cuda(18), SAME_INPUTS),
    (GOOD_S, GOOD_Z, fake.cuda(18), SAME),
    (fake.cuda(GOOD_S), fake.cuda(GOOD_Z), np.zeros(18), SAME),
    (fake.cuda(GOOD_S), fake.cuda(GOOD_Z), fake.cuda(18), RUNTIME),
])
@pytest.mark.parametrize("method", ["nt_scaling_matrix_batch_into",
                                    "nt_scaling_matrix_batch_custom_into",
                                    "nt_scaling_matrix_batch_cublas_into"])
def test_batch_checks_in_order(m, s, z, out, message, method):
    if message == RUNTIME and m.has_cuda():
        pytest.skip("needs a machine without a usable CUDA device")
    with pytest.raises(RuntimeError, match=f"^{message}$"):
        getattr(m.SecondOrderConeCpp(3), method)(s, z, out, 2)


@pytest.mark.parametrize("s,z,message", [
    (np.ones(2), fake.cuda(3), "s expected 3 entries, got 2"),
    (fake.cuda(3), np.ones(2), "s must be a CPU vector for dense NT scaling"),
    (fake.on_device(3, fake.CUDA_HOST), np.ones(3), "s must be on CPU or CUDA"),
    (np.ones(3), fake.cuda(4), "z expected 3 entries, got 4"),
    (np.ones(3), fake.cuda(3), "z must be a CPU vector for dense NT scaling"),
])
@pytest.mark.parametrize("form", ["nt_scaling_matrix", "nt_scaling_matrix_array"])
def test_dense_form_checks_in_order(m, s, z, message, form):
    with pytest.raises(RuntimeError, match=f"^{message}$"):
        getattr(m.SecondOrderConeCpp(3), form)(s, z)
