"""The solver kit of the symmetric cones on host arrays: the NT scaling's
defining properties (H s = z, W z = W^-1 s = lam, H z^-1 = s^-1, H
symmetric), agreement with CVXOPT, scale invariance, exact step lengths,
the Jordan operations, batches and their refusals, and the coupling-safe
fills."""
from fractions import Fraction

import numpy as np
import pytest
import scipy.sparse as sp

from kit_cases import KINDS, Kit, backward_error, cone_of

cvxopt = pytest.importorskip("cvxopt", reason="CVXOPT (python3-cvxopt) is not installed")
from cvxopt import matrix, misc  # noqa: E402

CASES = [(kind, n) for kind in KINDS for n in KINDS[kind].sizes]
GAPS = [None, 1e-6, 1e-12]


def pair(kind, n, rng, gap=None):
    k = KINDS[kind]
    return k.interior(n, rng, gap), k.interior(n, rng, gap)


@pytest.mark.parametrize("gap", GAPS)
@pytest.mark.parametrize("kind, n", CASES)
def test_nt_scaling_is_the_nt_scaling(m, rng, kind, n, gap):
    cone, k = cone_of(m, kind, n), KINDS[kind]
    kit = Kit(cone)
    s, z = pair(kind, n, rng, gap)
    sc = kit.scaling(s, z)
    H, Hinv = kit.hessian(sc)[0], kit.hessian(sc, inverse=True)[0]
    lam = kit.vector("nt_scaled_point_into", sc)
    assert np.array_equal(H, H.T) and np.array_equal(Hinv, Hinv.T)
    assert backward_error(H @ s - z, np.abs(H) @ np.abs(s), z) < 1e-13
    zi, si = k.inverse(z), k.inverse(s)
    assert backward_error(H @ zi - si, np.abs(H) @ np.abs(zi), si) < 1e-13
    for x, inverse, w_norm in ((z, False, np.linalg.norm(Hinv, 2) ** 0.5),
                               (s, True, np.linalg.norm(H, 2) ** 0.5)):  # W z = W^-1 s = lam
        got = kit.vector("nt_apply_into", sc, x, inverse=inverse)
        assert backward_error(got - lam, w_norm * x, lam) < 1e-13
    identity_error = np.linalg.norm(H @ Hinv - np.eye(n))
    assert identity_error < 1e-14 * n * np.linalg.norm(H) * np.linalg.norm(Hinv)
    if gap is not None:  # CVXOPT's det cancels next to the boundary; compare well inside
        return
    W = misc.compute_scaling(matrix(k.to_cvxopt(s)), matrix(k.to_cvxopt(z)), matrix(0.0, (n, 1)),
                             k.cvxopt_dims(n))
    Hc = k.cvxopt_h(W, n)
    assert np.linalg.norm(H - Hc) <= 1e-12 * np.linalg.norm(Hc)


# Factors that round the inputs, on pairs well inside (a pair next to the
# boundary is known only to its rounding, which rescaling changes), and
# exact powers of two on pairs next to the boundary.
@pytest.mark.parametrize("alpha, beta, gap", [(1e-8, 1.0, None), (1.0, 1e8, None),
                                              (1e8, 1e-8, None), (3.0, 7.0, None),
                                              (2.0**-27, 2.0**25, 1e-12), (2.0**20, 2.0, 1e-9)])
@pytest.mark.parametrize("kind, n", CASES)
def test_scaling_scales_as_the_mathematics_says(m, rng, kind, n, alpha, beta, gap):
    kit = Kit(cone_of(m, kind, n))
    s, z = pair(kind, n, rng, gap)
    sc, scaled = kit.scaling(s, z), kit.scaling(alpha * s, beta * z)
    close = lambda a, b: np.linalg.norm(a - b) <= 1e-12 * np.linalg.norm(b)  # noqa: E731
    assert close(kit.hessian(scaled)[0], beta / alpha * kit.hessian(sc)[0])
    lam = kit.vector("nt_scaled_point_into", sc)
    assert close(kit.vector("nt_scaled_point_into", scaled), np.sqrt(alpha * beta) * lam)
    x = rng.normal(size=n)
    assert close(kit.vector("nt_apply_into", scaled, x),
                 np.sqrt(alpha / beta) * kit.vector("nt_apply_into", sc, x))


@pytest.mark.parametrize("kind, n", CASES)
def test_max_step_is_exact_and_never_beyond_the_boundary(m, rng, kind, n):
    """Checked in exact arithmetic: x + alpha dx is in the cone and x +
    alpha (1 + 1e-12) dx is not; the step is unbounded exactly when dx is in
    the cone (the cone is its own recession cone). Points well inside, next
    to the boundary and on it (the apex, for one entry)."""
    cone, k = cone_of(m, kind, n), KINDS[kind]
    edge = k.interior(n, rng, 1e-12) if n > 1 else np.array([0.0])
    for x in (k.interior(n, rng), k.interior(n, rng, 1e-8), edge):
        for dx in (rng.normal(size=n), -k.interior(n, rng), k.interior(n, rng), np.zeros(n)):
            alpha = cone.max_step(x, dx)
            assert (alpha == np.inf) == k.contains_exactly(dx)
            if alpha == np.inf:
                continue
            point = lambda a: [Fraction(p) + Fraction(a) * Fraction(d)  # noqa: E731
                               for p, d in zip(x, dx)]
            assert alpha >= 0 and k.contains_exactly(point(alpha))
            assert alpha == 0 or not k.contains_exactly(point(alpha * (1 + 1e-12)))


@pytest.mark.parametrize("kind, n", CASES)
def test_jordan_product_and_division_agree_with_cvxopt(m, rng, kind, n):
    k = KINDS[kind]
    kit = Kit(cone_of(m, kind, n))
    lam, v = k.interior(n, rng), rng.normal(size=n)
    dims = k.cvxopt_dims(n)
    product = matrix(k.to_cvxopt(lam))
    misc.sprod(product, matrix(k.to_cvxopt(v)), dims)
    assert np.allclose(k.to_cvxopt(kit.vector("jordan_product_into", lam, v)),
                       np.array(product).ravel(), rtol=1e-14, atol=1e-14 * np.abs(v).max())
    x = kit.vector("jordan_divide_into", lam, v)
    quotient = matrix(k.to_cvxopt(v))
    misc.sinv(quotient, matrix(k.to_cvxopt(lam)), dims)
    assert np.allclose(k.to_cvxopt(x), np.array(quotient).ravel(), rtol=1e-12,
                       atol=1e-12 * np.abs(x).max())
    edge = k.interior(n, rng, 1e-9)  # ill-conditioned: a small backward error still
    x = kit.vector("jordan_divide_into", edge, v)
    residual = kit.vector("jordan_product_into", edge, x) - v
    assert backward_error(residual, np.linalg.norm(edge) * np.abs(x), v) < 1e-14
    e = kit.vector("identity_into")
    assert np.array_equal(kit.vector("jordan_product_into", e, v), v)


@pytest.mark.parametrize("kind, n", CASES)
def test_batches_match_items_and_name_the_first_refused_item(m, rng, kind, n):
    """Items are independent; a batch large enough to run on the team gives
    the bits of one call per item, and a refusal names the first bad item
    (of either input) and the argument."""
    k, batch = KINDS[kind], 9000 // n + 3
    cone = cone_of(m, kind, n)
    s = np.concatenate([k.interior(n, rng) for _ in range(batch)])
    z = np.concatenate([k.interior(n, rng) for _ in range(batch)])
    sc = Kit(cone, batch).scaling(s, z)
    one = Kit(cone)
    for b in (0, batch // 2, batch - 1):
        item = slice(b * n, (b + 1) * n)
        assert np.array_equal(sc.reshape(batch, -1)[b], one.scaling(s[item], z[item]))
    label = {"nonnegative": "nonnegative", "soc": "SOC"}[kind]
    for name, bad in (("z", 7), ("s", 5)):
        arrays = {"s": s.copy(), "z": z.copy()}
        arrays[name][bad * n] = -1.0
        with pytest.raises(RuntimeError, match=f"^{label} NT scaling: {name} of item {bad} is "
                                               "not strictly interior$"):
            cone.nt_scaling_into(arrays["s"], arrays["z"], sc, batch=batch)
    x = s.copy()
    x[3 * n] = -5.0
    with pytest.raises(RuntimeError, match=f"^{label} max_step: x of item 3 is not in the cone$"):
        cone.max_step(x, z, batch=batch)
    with pytest.raises(RuntimeError,
                       match=f"^{label} Jordan division: lam of item 3 is not strictly interior$"):
        cone.jordan_divide_into(x, z, np.empty_like(z), batch=batch)


def kkt_pattern(rows, batch, offset, rng):
    """A square pattern with the items' diagonal blocks (some entries left
    out), coupling entries in their rows and columns, and other rows."""
    size = offset + rows * batch + 4
    mat = sp.random(size, size, density=0.3, random_state=np.random.RandomState(7), format="lil")
    for b in range(batch):
        lo = offset + b * rows
        mat[lo:lo + rows, lo:lo + rows] = 1.0
    mat[offset, offset + rows * batch - 1] = 0  # a hole in the blocks' union, not in a block
    return sp.csr_matrix(mat)


@pytest.mark.parametrize("inverse, scale", [(False, 1.0), (True, -2.5)])
@pytest.mark.parametrize("kind, n", [("nonnegative", 3), ("soc", 4)])
def test_fills_write_the_blocks_and_keep_every_other_entry(m, rng, kind, n, inverse, scale):
    k, batch, offset = KINDS[kind], 3, 2
    cone = cone_of(m, kind, n)
    s = np.concatenate([k.interior(n, rng) for _ in range(batch)])
    z = np.concatenate([k.interior(n, rng) for _ in range(batch)])
    kit = Kit(cone, batch)
    sc = kit.scaling(s, z)
    H = kit.hessian(sc, inverse=inverse)
    pattern = kkt_pattern(n, batch, offset, rng)
    pattern.data = rng.normal(size=pattern.nnz)
    coo = pattern.tocoo()
    rows, cols = coo.row.astype(np.int64), coo.col.astype(np.int64)
    want = coo.data.copy()
    for p, (r, c) in enumerate(zip(rows - offset, cols - offset)):
        if 0 <= r < n * batch and 0 <= c < n * batch and r // n == c // n:
            want[p] = scale * H[r // n][r % n, c % n]
    got = coo.data.copy()
    cone.nt_hessian_coo_values_into(sc, rows, cols, got, row_offset=offset, batch=batch,
                                    inverse=inverse, scale=scale)
    assert np.array_equal(got, want)
    csr = sp.csr_matrix((coo.data, (rows, cols)), shape=pattern.shape)  # CSR order, same entries
    values = csr.data.copy()
    cone.nt_hessian_csr_values_into(sc, csr.indptr.astype(np.int64), csr.indices.astype(np.int64),
                                    values, row_offset=offset, batch=batch, inverse=inverse,
                                    scale=scale)
    assert np.array_equal(sp.csr_matrix((values, csr.indices, csr.indptr)).toarray(),
                          sp.csr_matrix((want, (rows, cols)), shape=pattern.shape).toarray())


def test_fills_report_bad_patterns_as_the_documented_fills_do(m):
    cone = m.NonnegativeConeCpp(2)
    sc = Kit(cone).scaling(np.ones(2), np.ones(2))
    values = np.zeros(3)
    with pytest.raises(RuntimeError, match="^CSR indices must be nonnegative$"):
        cone.nt_hessian_csr_values_into(sc, np.array([0, 2, 3]), np.array([0, -1, 1]), values)
    assert values[0] == 1.0 and values[1:].tolist() == [0.0, 0.0]  # written up to the bad one
    with pytest.raises(RuntimeError, match="CSR indptr is too short"):
        cone.nt_hessian_csr_values_into(np.r_[sc, sc], np.array([0, 2]), np.array([0, 1, 1]),
                                        values, batch=2)
    with pytest.raises(RuntimeError, match="^COO row_indices must be nonnegative$"):
        cone.nt_hessian_coo_values_into(sc, np.array([0, -1, 1]), np.array([0, 1, 1]), values)


def test_zero_cone_answers_trivially(m):
    cone = m.ZeroConeCpp(3)
    out = np.full(6, 7.0)
    cone.identity_into(out, batch=2)
    assert (cone.degree(), cone.scaling_length(5), out.tolist()) == (0, 0, [0.0] * 6)
    nan = np.full(3, np.nan)
    assert cone.max_step(nan, nan) == np.inf
    cone.nt_scaling_into(np.ones(3), np.ones(3), np.empty(0))
    values = np.full(4, 9.0)
    cone.nt_hessian_coo_values_into(np.empty(0), np.array([0, 1, 3, 9]), np.array([0, 2, 1, 9]),
                                    values, scale=-1.0)
    assert np.array_equal(values, [-0.0, -0.0, 9.0, 9.0]) and np.signbit(values[0])


@pytest.mark.parametrize("kind, degree, identity", [
    ("nonnegative", 3, [1.0, 1.0, 1.0]), ("soc", 1, [1.0, 0.0, 0.0])])
def test_degree_and_identity(m, kind, degree, identity):
    cone = cone_of(m, kind, 3)
    assert cone.degree() == degree and Kit(cone).vector("identity_into").tolist() == identity


def test_arguments_are_checked_in_order_before_anything_is_read(m):
    import fake_dlpack
    cone = m.SecondOrderConeCpp(3)
    sc = np.zeros(cone.scaling_length(2))
    with pytest.raises(RuntimeError, match="^z expected 6 entries, got 3$"):
        cone.nt_scaling_into(np.ones(6), np.ones(3), sc, batch=2)
    with pytest.raises(RuntimeError, match="^scaling expected 24 entries, got 12$"):
        cone.nt_scaling_into(np.ones(6), np.ones(6), sc[:12], batch=2)
    with pytest.raises(RuntimeError, match="^input and output must live on the same device$"):
        cone.nt_apply_into(sc, np.ones(6), fake_dlpack.cuda(6), batch=2)
    with pytest.raises(RuntimeError, match="^CUDA runtime is required for CUDA cone arrays$"):
        cone.max_step(fake_dlpack.cuda(3), fake_dlpack.cuda(3))
    with pytest.raises(ValueError, match="^batch too large: rows \\* batch overflows$"):
        cone.identity_into(np.zeros(3), batch=2**63)
    for bad in ("2", 2.0):
        with pytest.raises(TypeError):
            cone.identity_into(np.zeros(6), batch=bad)
