"""PSD NT scaling on the host: H s = z, W S W = Z and agreement with SciPy,
the batch closed forms for orders 1 and 2 against the general path, the
documented examples, every message and the partial writes of a failing
batch, the device routes and the kernels' formulas run on the host (NaN for
blocks that are not positive definite)."""
import numpy as np
import pytest
import scipy.linalg
from cone_cases import MARK, RUNTIME, scaling_of
from fake_dlpack import cuda
from samples import psd_pairs, smat, spd, svec

MATRICES = "PSD NT scaling requires strictly positive definite matrices"
INPUTS = "PSD NT scaling requires strictly positive definite inputs"
LIMIT = "CUDA PSD NT scaling currently supports dim <= {}".format
R2 = 1.4142135623730951
BATCH_FORMS = ["nt_scaling_matrix_into", "nt_scaling_matrix_batch_into",
               "nt_scaling_matrix_batch_custom_into"]


def reference_w(s, z, n):
    """W from SciPy's matrix square roots."""
    big_s, big_z = smat(s, n), smat(z, n)
    half = scipy.linalg.sqrtm(big_s).real
    inv_half = np.linalg.inv(half)
    return inv_half @ scipy.linalg.sqrtm(half @ big_z @ half).real @ inv_half


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
    (2, ONES, [1.0, 0.0, 1.0], None, INPUTS), (2, [1.0, 0.0, 0.0], [1.0, 0.0, 1.0], MATRICES, INPUTS),
    (2, [1.0, 0.0, 1.0], [1.0, 0.0, -1.0], MATRICES, INPUTS),
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


@pytest.mark.parametrize("dim", [1, 2, 40])
def test_zero_batch_writes_nothing_but_cublas_and_custom_keep_their_rules(m, dim):
    cone, empty = m.PsdConeCpp(dim), np.empty(0)
    for method in BATCH_FORMS[1:]:
        getattr(cone, method)(empty, empty, np.empty(0), 0)
    for batch in (0, 2):
        n = cone.rows * batch
        with pytest.raises(RuntimeError, match="^PSD cuBLAS NT scaling requires CUDA arrays$"):
            cone.nt_scaling_matrix_batch_cublas_into(np.ones(n), np.ones(n),
                                                     np.zeros(n * cone.rows), batch)
    if dim > 32:  # device arrays: the custom kernels refuse, after the runtime check
        custom = "CUDA PSD custom NT scaling currently supports dim <= 32"
        with pytest.raises(RuntimeError, match=f"^{custom if m.has_cuda() else RUNTIME}$"):
            cone.nt_scaling_matrix_batch_custom_into(cuda(cone.rows), cuda(cone.rows),
                                                     cuda(cone.rows ** 2), 1)


W_ONLY = "CUDA PSD W output is only used for dim >= 3"


# One case per rule and per boundary, and the order of the checks: a zero
# batch first, then the entry point's dim limit, then W's own order limit.
@pytest.mark.parametrize("entry, dim, batch, expected", [
    ("w", 1000, 0, "nothing"), ("batch", 129, 1, LIMIT(128)), ("custom", 33, 1, LIMIT(32)),
    ("w", 2, 16, W_ONLY), ("batch", 1, 5, "order1"), ("cublas", 2, 1, "order2"),
    ("batch", 3, 15, "custom"), ("batch", 3, 16, "library"), ("batch", 7, 1, "custom"),
    ("batch", 8, 1, "library"), ("batch", 128, 1, "library"), ("custom", 32, 100, "custom"),
    ("cublas", 3, 1, "library"), ("w", 3, 15, "custom"), ("w", 8, 1, "library"),
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


def test_svec_positions_walk_the_lower_triangle_row_by_row(hooks):
    rows, cols = np.tril_indices(24)
    assert [hooks.svec_position(k) for k in range(300)] == list(zip(rows, cols))
    for j in (1000, 99_999, 2**26 + 3, 2**31 - 1, 3_037_000_000):
        first = j * (j + 1) // 2
        for k, expected in ((first - 1, (j - 1, j - 1)), (first, (j, 0)), (first + j, (j, j))):
            assert hooks.svec_position(k) == expected
