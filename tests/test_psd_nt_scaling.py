"""PSD NT scaling on the host: H s = z and W S W = Z, agreement with SciPy,
the documented evaluation order bit for bit, the closed forms of the batched
path, every message and the partial writes of a failing batch, the device
routes and the kernels' formulas run on the host (NaN for blocks that are
not positive definite)."""
import ctypes
import math

import numpy as np
import pytest
import scipy.linalg
from cone_cases import MARK, RUNTIME, assert_batch_matches_items, scaling_of
from fake_dlpack import cuda
from samples import documented_jacobi, psd_pairs, smat, spd, svec

MATRICES = "PSD NT scaling requires strictly positive definite matrices"
INPUTS = "PSD NT scaling requires strictly positive definite inputs"
LIMIT = "CUDA PSD NT scaling currently supports dim <= {}".format
R2 = 1.4142135623730951
BATCH_FORMS = ["nt_scaling_matrix_into", "nt_scaling_matrix_batch_into",
               "nt_scaling_matrix_batch_custom_into"]


# ------------------------------------------- the documented order in Python

def exact_smat(x, n):
    m, k = [[0.0] * n for _ in range(n)], 0
    for j in range(n):
        for i in range(j + 1):
            m[j][i] = m[i][j] = x[k] if i == j else x[k] / R2
            k += 1
    return m


def exact_power(a, p):
    n = len(a)
    values, v = documented_jacobi(a)
    out = [[0.0] * n for _ in range(n)]
    for k in range(n):
        if values[k] <= 0:
            raise ValueError("not positive definite")
        mu = math.pow(float(values[k]), p)
        for i in range(n):
            for j in range(n):
                out[i][j] = (float(v[i][k]) * mu) * float(v[j][k]) + out[i][j]
    return out


def exact_matmul(a, b):
    n = len(a)
    c = [[0.0] * n for _ in range(n)]
    for i in range(n):
        for k in range(n):
            for j in range(n):
                c[i][j] = b[k][j] * a[i][k] + c[i][j]
    return c


def exact_w(s, z, n):
    big_s, big_z = exact_smat(s, n), exact_smat(z, n)
    half, inv_half = exact_power(big_s, 0.5), exact_power(big_s, -0.5)
    m = exact_matmul(exact_matmul(half, big_z), half)
    return exact_matmul(exact_matmul(inv_half, exact_power(m, 0.5)), inv_half)


def position(k):
    i, j = k, 0
    while j < i:
        i, j = i - (j + 1), j + 1
    return j, i


def exact_operator(w, n):
    rows = n * (n + 1) // 2
    h = np.zeros((rows, rows))
    for r in range(rows):
        for c in range(rows):
            (j, i), (l, k) = position(r), position(c)
            if k != l:
                v = (w[i][k] * w[j][l] + w[j][k] * w[i][l]) / R2
            else:
                v = w[j][l] * w[i][l]
            h[r, c] = v * R2 if i != j else v
    return h


def exact_power2(a, b, c, p):
    m = (a + c) * 0.5
    r = math.sqrt((0.25 * (a - c)) * (a - c) + b * b)
    up, lo = m + r, m - r
    pu, pl = math.pow(up, p), math.pow(lo, p)
    if r <= 1e-14:
        return pu, 0.0, pu
    alpha, beta = (pu - pl) / (up - lo), (up * pl - lo * pu) / (up - lo)
    return a * alpha + beta, b * alpha, c * alpha + beta


def exact_closed_form2(s, z):
    a, bs, c = s[0], s[1] / R2, s[2]
    z0, zb, z2 = z[0], z[1] / R2, z[2]
    pa, pb, pc = exact_power2(a, bs, c, 0.5)
    qa, qb, qc = exact_power2(a, bs, c, -0.5)
    y00, y10, y01, y11 = z0 * pa + zb * pb, zb * pa + z2 * pb, z0 * pb + zb * pc, z2 * pc + zb * pb
    m00, m11 = pa * y00 + pb * y10, pc * y11 + pb * y01
    m01 = ((pb * y00 + pc * y10) + (y01 * pa + y11 * pb)) * 0.5
    ra, rb, rc = exact_power2(m00, m01, m11, 0.5)
    k00, k01, k10, k11 = qa * ra + qb * rb, qa * rb + qb * rc, ra * qb + rb * qc, rc * qc + qb * rb
    w00, w11 = qa * k00 + qb * k01, qb * k10 + qc * k11
    w01 = 0.5 * ((k00 * qb + qc * k01) + (qa * k10 + qb * k11))
    e, f, g = w01 * w01, (w00 * R2) * w01, (w01 * R2) * w11
    return [w00 * w00, f, e, f, w00 * w11 + e, g, e, g, w11 * w11]


def reference_w(s, z, n):
    """W from SciPy's matrix square roots."""
    big_s, big_z = smat(s, n), smat(z, n)
    half = scipy.linalg.sqrtm(big_s).real
    inv_half = np.linalg.inv(half)
    return inv_half @ scipy.linalg.sqrtm(half @ big_z @ half).real @ inv_half


# ------------------------------------------------------------------- tests

def close(got, expected, digits=12):
    np.testing.assert_allclose(got, expected, rtol=0, atol=10.0 ** -digits * np.abs(expected).max())


@pytest.mark.parametrize("n", [1, 2, 3, 5, 8, 13])
def test_scaling_maps_s_to_z_and_agrees_with_scipy(m, hooks, rng, n):
    s, z = psd_pairs(n, 1, rng)
    h = scaling_of(m.PsdConeCpp(n), s, z, n <= 2, rtol=1e-13).reshape(len(s), -1)
    close(h @ s, z)
    close(h.T, h, 13)
    w = hooks.psd_nt_congruence(s, z, n)
    close(w @ smat(s, n) @ w, smat(z, n))
    close(w, reference_w(s, z, n), 11)
    # H is the map X -> W X W in svec coordinates.
    x = spd(n, rng, -1.0, 1.0)
    close(h @ svec(x), svec(w @ x @ w))


@pytest.mark.parametrize("n", [1, 2, 3, 4])
def test_general_path_follows_the_documented_order(m, hooks, rng, n):
    s, z = (v.tolist() for v in psd_pairs(n, 1, rng))
    w = exact_w(s, z, n)
    assert np.array_equal(hooks.psd_nt_congruence(np.array(s), np.array(z), n), w)
    # Every form for n >= 3; for n <= 2 the list and array forms (the batch
    # forms take the closed forms there).
    h = scaling_of(m.PsdConeCpp(n), np.array(s), np.array(z), n <= 2, rtol=1e-13)
    assert np.array_equal(h, exact_operator(w, n).ravel())


@pytest.mark.parametrize("n", [1, 2])
def test_batched_closed_forms_follow_the_documented_order(m, rng, n):
    batch = 6
    s, z = psd_pairs(n, batch, rng)
    if n == 2:
        s[3:6] = [2.5, 0.0, 2.5]   # a multiple of the identity: half-gap 0
    out = np.full(n ** 2 * (n + 1) ** 2 // 4 * batch, MARK)
    m.PsdConeCpp(n).nt_scaling_matrix_batch_into(s, z, out, batch)
    r = n * (n + 1) // 2
    expected = [z[b] / s[b] for b in range(batch)] if n == 1 else sum(
        (exact_closed_form2(s[r * b:r * b + r].tolist(), z[r * b:r * b + r].tolist())
         for b in range(batch)), [])
    assert np.array_equal(out, expected)


@pytest.mark.parametrize("n, s, z, batched, single", [
    (1, [2.0], [8.0], [4.0], [4.000000000000002]),
    (2, [1.0, 0.0, 1.0], [1.0, 0.0, 1.0], np.eye(3).ravel(), None),
    (2, [1.0, 0.0, 1.0], [4.0, 0.0, 9.0], [4.0, 0, 0, 0, 6.0, 0, 0, 0, 9.0], None),
    (3, [1.0, 0, 1.0, 0, 0, 1.0], [4.0, 0, 4.0, 0, 0, 4.0], 4 * np.eye(6).ravel(), None),
])
def test_documented_examples(m, n, s, z, batched, single):
    cone = m.PsdConeCpp(n)
    s, z = np.array(s), np.array(z)
    for method in BATCH_FORMS:
        out = np.full(len(batched), MARK)
        getattr(cone, method)(s, z, out, *([] if method == "nt_scaling_matrix_into" else [1]))
        assert np.array_equal(out, batched)
    general = cone.nt_scaling_matrix(s, z)
    if single is not None:
        assert general == single
    np.testing.assert_allclose(general, batched, rtol=1e-15, atol=1e-15)


ONES = [1.0, R2, 1.0]   # the all-ones 2 x 2 matrix: eigenvalues 0 and 2
INDEFINITE3 = svec(np.diag([1.0, -1e-3, 2.0]))
IDENTITY3 = svec(np.eye(3))


# The all-ones S fails the closed form exactly (lambda = 0). The general
# path's rotation leaves it an eigenvalue of 1.2e-32 in double arithmetic,
# which passes, so its single forms are not checked here.
@pytest.mark.parametrize("n, s, z, single, batched", [
    (1, [0.0], [1.0], MATRICES, INPUTS), (1, [1.0], [-1.0], MATRICES, INPUTS),
    (1, [-1.0], [-1.0], MATRICES, INPUTS), (2, ONES, [1.0, 0.0, 1.0], None, INPUTS),
    (2, [1.0, 0.0, 0.0], [1.0, 0.0, 1.0], MATRICES, INPUTS),
    (2, [1.0, 0.0, 1.0], [1.0, 0.0, -1.0], MATRICES, INPUTS),
    (2, [1.0, 0.0, -1.0], [1.0, 0.0, 1.0], MATRICES, INPUTS),
    (3, INDEFINITE3, IDENTITY3, MATRICES, MATRICES), (3, IDENTITY3, INDEFINITE3, MATRICES, MATRICES),
])
def test_not_positive_definite_messages_leave_outputs_untouched(m, n, s, z, single, batched):
    cone = m.PsdConeCpp(n)
    s, z = np.array(s), np.array(z)
    for method in ("nt_scaling_matrix", "nt_scaling_matrix_array") if single else ():
        with pytest.raises(RuntimeError, match=f"^{single}$"):
            getattr(cone, method)(s, z)
    for method in BATCH_FORMS:
        out = np.full(cone.rows ** 2, MARK)
        with pytest.raises(RuntimeError, match=f"^{batched}$"):
            getattr(cone, method)(s, z, out, *([] if method == "nt_scaling_matrix_into" else [1]))
        assert (out == (0.0 if n == 1 else MARK)).all()


@pytest.mark.parametrize("n", [1, 2, 3])
def test_nan_passes_the_positivity_tests(m, n):
    cone = m.PsdConeCpp(n)
    s = svec(np.eye(n))
    s[0] = np.nan
    out = np.full(cone.rows ** 2, MARK)
    cone.nt_scaling_matrix_batch_into(s, svec(np.eye(n)), out, 1)
    assert np.isnan(out).any()
    assert np.isnan(cone.nt_scaling_matrix(s, svec(np.eye(n)))).any()


@pytest.mark.parametrize("n", [1, 2, 3])
def test_failing_block_keeps_earlier_blocks_and_clears_or_keeps_the_rest(m, rng, n):
    cone, batch, bad = m.PsdConeCpp(n), 4, 2
    r, h = cone.rows, cone.rows ** 2
    s, z = psd_pairs(n, batch, rng)
    z[bad * r:(bad + 1) * r] = svec(-np.eye(n))
    out = np.full(h * batch, MARK)
    with pytest.raises(RuntimeError, match=f"^{INPUTS if n <= 2 else MATRICES}$"):
        cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    for b in range(bad):
        single = np.full(h, MARK)
        cone.nt_scaling_matrix_into(s[b * r:(b + 1) * r], z[b * r:(b + 1) * r], single)
        assert np.array_equal(out[b * h:(b + 1) * h], single)
    assert (out[bad * h:] == (0.0 if n == 1 else MARK)).all()


@pytest.mark.parametrize("n", [1, 2, 4])
@pytest.mark.parametrize("method", ["nt_scaling_matrix_batch_into",
                                    "nt_scaling_matrix_batch_custom_into"])
def test_batch_items_are_the_single_forms(m, rng, n, method):
    s, z = psd_pairs(n, 5, rng)
    assert_batch_matches_items(m.PsdConeCpp(n), s, z, 5, method)


@pytest.mark.parametrize("dim", [1, 2, 40])
def test_zero_batch_writes_nothing_but_cublas_still_needs_cuda(m, dim):
    cone, empty = m.PsdConeCpp(dim), np.empty(0)
    for method in BATCH_FORMS[1:]:
        getattr(cone, method)(empty, empty, np.empty(0), 0)
    for batch in (0, 2):
        n = cone.rows * batch
        with pytest.raises(RuntimeError, match="^PSD cuBLAS NT scaling requires CUDA arrays$"):
            cone.nt_scaling_matrix_batch_cublas_into(np.ones(n), np.ones(n),
                                                     np.zeros(n * cone.rows), batch)


@pytest.mark.parametrize("dim", [33, 40])
def test_custom_method_refuses_dims_above_32_on_device_arrays(m, dim):
    rows = dim * (dim + 1) // 2
    with pytest.raises(RuntimeError) as err:
        m.PsdConeCpp(dim).nt_scaling_matrix_batch_custom_into(cuda(rows), cuda(rows),
                                                              cuda(rows * rows), 1)
    expected = "CUDA PSD custom NT scaling currently supports dim <= 32"
    assert str(err.value) == (expected if m.has_cuda() else RUNTIME)


@pytest.mark.parametrize("dim, batch, method", [
    (1, 0, "analytic"), (2, 500, "analytic"), (3, 0, "custom"), (3, 15, "custom"),
    (7, 1, "custom"), (3, 16, "cublas"), (8, 1, "cublas"), (128, 1, "cublas"), (129, 16, "custom"),
    (8, 0, "custom"), (129, 1, "custom"),
])
def test_default_method(m, dim, batch, method):
    assert m.PsdConeCpp(dim).nt_scaling_matrix_default_method(batch) == method
    query = ctypes.CDLL(m.__file__).dravik_psd_nt_scaling_default_method_cuda
    query.restype, query.argtypes = ctypes.c_char_p, [ctypes.c_size_t, ctypes.c_size_t]
    assert query(dim, batch).decode() == method
    assert m.PsdConeCpp(dim).nt_scaling_matrix_default_method() == query(dim, 1).decode()


W_ONLY = "CUDA PSD W output is only used for dim >= 3"


@pytest.mark.parametrize("entry, dim, batch, expected", [
    *[(e, 1000, 0, "nothing") for e in ("batch", "custom", "cublas", "w")],
    ("batch", 129, 1, LIMIT(128)), ("cublas", 129, 1, LIMIT(128)), ("w", 129, 1, LIMIT(128)),
    ("custom", 33, 1, LIMIT(32)), ("custom", 129, 1, LIMIT(32)),
    ("w", 2, 1, W_ONLY), ("w", 1, 16, W_ONLY),
    ("batch", 1, 5, "order1"), ("batch", 2, 500, "order2"), ("custom", 2, 100, "order2"),
    ("cublas", 1, 1, "order1"), ("cublas", 2, 1, "order2"),
    ("batch", 5, 4, "custom"), ("batch", 3, 15, "custom"), ("batch", 5, 16, "library"),
    ("batch", 8, 1, "library"), ("batch", 33, 1, "library"), ("batch", 128, 1, "library"),
    ("custom", 7, 1, "custom"), ("custom", 32, 100, "custom"), ("cublas", 3, 1, "library"),
    ("w", 3, 1, "custom"), ("w", 7, 15, "custom"), ("w", 3, 16, "library"), ("w", 8, 1, "library"),
    ("w", 128, 1, "library"),
])
def test_device_routes_and_the_order_of_their_checks(hooks, entry, dim, batch, expected):
    if expected.startswith("CUDA"):
        with pytest.raises(RuntimeError, match=f"^{expected}$"):
            hooks.psd_nt_route(entry, dim, batch)
    else:
        assert hooks.psd_nt_route(entry, dim, batch) == expected


def test_batch_route_is_the_default_method(m, hooks):
    names = {"order1": "analytic", "order2": "analytic", "custom": "custom", "library": "cublas"}
    for dim in range(1, 129):
        for batch in (1, 15, 16):
            route = hooks.psd_nt_route("batch", dim, batch)
            assert names[route] == m.PsdConeCpp(dim).nt_scaling_matrix_default_method(batch)


@pytest.mark.parametrize("n", [1, 2, 3, 6, 9, 32])
def test_kernel_formulas_give_the_host_bits(m, hooks, rng, n):
    cone = m.PsdConeCpp(n)
    s, z = psd_pairs(n, 1, rng)
    out = np.empty(cone.rows ** 2)
    cone.nt_scaling_matrix_batch_into(s, z, out, 1)
    assert np.array_equal(hooks.psd_nt_block_device(s, z, n).ravel(), out)
    if n >= 3:
        assert np.array_equal(hooks.psd_nt_congruence_private(s, z, n), hooks.psd_nt_congruence(s, z, n))


@pytest.mark.parametrize("n, s, z", [
    (1, [-1.0], [1.0]), (1, [1.0], [0.0]), (2, ONES, [1.0, 0.0, 1.0]),
    (2, [1.0, 0.0, 1.0], [1.0, 0.0, -4.0]), (3, INDEFINITE3, IDENTITY3),
    (3, IDENTITY3, INDEFINITE3), (5, svec(np.diag([1.0, 2, 0, 3, 4])), svec(np.eye(5))),
])
def test_kernel_formulas_mark_non_positive_definite_blocks_nan_throughout(hooks, n, s, z):
    assert np.isnan(hooks.psd_nt_block_device(np.array(s), np.array(z), n)).all()
    if n >= 3:
        assert np.isnan(hooks.psd_nt_congruence_private(np.array(s), np.array(z), n)).all()


@pytest.mark.parametrize("values", [[0.5, 2.0, 3.0], [0.5, 0.0, 3.0], [-1.0, 2.0, 3.0]])
def test_power_after_the_eigen_solver(hooks, rng, values):
    q, _ = np.linalg.qr(rng.standard_normal((3, 3)))
    got = hooks.psd_power_from_eigenpairs(q.T.ravel(), np.array(values), 3, -0.5)
    if min(values) > 0:
        np.testing.assert_allclose(got, (q * np.power(values, -0.5)) @ q.T, rtol=1e-14, atol=1e-15)
    else:
        assert np.isnan(got).all()


def test_svec_positions_decode_exactly(hooks):
    assert [hooks.svec_position(k) for k in range(300)] == [position(k) for k in range(300)]
    for j in (1000, 99_999, 2**26 + 3, 2**31 - 1, 3_037_000_000):
        first = j * (j + 1) // 2
        for k, expected in ((first - 1, (j - 1, j - 1)), (first, (j, 0)), (first + j, (j, j))):
            assert hooks.svec_position(k) == expected
