"""The exponential cone's solver kit on host arrays: the barrier, its gradient
and Hessian against 60-digit differentiation, the conjugate point against a
bisection reference, step lengths on K and K* against bisection (never
beyond the boundary), and the primal-dual scaling's defining properties
(symmetric positive definite, H s = z, H s~ = z~) on pairs from the whole
cone, near both boundaries, far from and on the central path; batches,
refusals and the coupling-safe fills."""
import math

import numpy as np
import pytest
import scipy.sparse as sp

import exp_reference as ref
from kit_cases import Kit

CENTRAL = [-0.8278383990656786, 0.8051020015847954, 1.2909277098569580]
WELL_INSIDE, NEAR_BOUNDARY = (-3, 0.5), (-9, -3)


def shadows(cone, s, z, batch=1):
    """(s~, z~) = (-grad f*(z), -grad f(s)) from the kit's own methods."""
    kit = Kit(cone, batch)
    return -kit.vector("barrier_gradient_dual_into", z), -kit.vector("barrier_gradient_into", s)


def blocks_of(h, blocks):
    """The 3 x 3 diagonal blocks of dense items (batch x rows x rows)."""
    return np.stack([item[3 * k:3 * k + 3, 3 * k:3 * k + 3] for item in h for k in range(blocks)])


def test_central_point_and_degree(m):
    cone = m.ExponentialConeCpp(2)
    e = Kit(cone, 3).vector("identity_into")
    assert cone.degree() == 6 and e.tolist() == CENTRAL * 6
    g = Kit(cone, 3).vector("barrier_gradient_into", e)
    assert np.abs(g + e).max() <= 2e-16
    assert np.abs(ref.gradient(CENTRAL) + CENTRAL).max() <= 1e-15  # the constants themselves


@pytest.mark.parametrize("margins, tol", [(WELL_INSIDE, 1e-12), (NEAR_BOUNDARY, 1e-6)])
def test_gradient_and_hessian_against_differentiation(m, hooks, rng, margins, tol):
    """(Next to the boundary psi = y log(z / y) - x cancels: relative errors of
    rounding / margin are the conditioning of the input, not the formula's.)"""
    x = ref.primal_points(rng, 12, margins)
    g = Kit(m.ExponentialConeCpp(12)).vector("barrier_gradient_into", x)
    h = hooks.exp_hessian(x)
    for k in range(12):
        block = x[3 * k:3 * k + 3]
        np.testing.assert_allclose(g[3 * k:3 * k + 3], ref.gradient(block), rtol=tol)
        want = ref.hessian(block)
        assert np.abs(h[k] - want).max() <= 1e3 * tol * np.abs(want).max()
        assert np.array_equal(h[k], h[k].T)
    # Logarithmic homogeneity: <grad f(x), x> = -3 and grad^2 f(x) x = -grad f(x).
    x = ref.primal_points(rng, 2000)
    g, h = Kit(m.ExponentialConeCpp(2000)).vector("barrier_gradient_into", x), hooks.exp_hessian(x)
    terms = (g * x).reshape(-1, 3)
    assert np.all(np.abs(terms.sum(1) + 3) <= 1e-15 * np.abs(terms).sum(1))
    assert ref.backward_error(h, x, -g).max() <= 1e-14


@pytest.mark.parametrize("margins, tol", [(WELL_INSIDE, 1e-12), (NEAR_BOUNDARY, 1e-6)])
def test_conjugate_point_against_bisection(m, rng, margins, tol):
    """p = -grad f*(z) is the interior point with -grad f(p) = z: <p, z> = 3,
    and p agrees with a bisection on another reduction of the same equations
    (to rounding times the conditioning next to the boundary)."""
    n = 40
    z = ref.dual_points(rng, n, margins)
    cone = m.ExponentialConeCpp(n)
    p = -Kit(cone).vector("barrier_gradient_dual_into", z)
    back = -Kit(cone).vector("barrier_gradient_into", p)
    P, Z, B = p.reshape(-1, 3), z.reshape(-1, 3), back.reshape(-1, 3)
    assert np.all(np.abs((P * Z).sum(1) - 3) <= 1e-15 * np.abs(P * Z).sum(1))
    assert np.all(np.linalg.norm(B - Z, axis=1) <= tol * np.linalg.norm(Z, axis=1))
    for k in range(n):
        np.testing.assert_allclose(P[k], ref.conjugate_point(Z[k]), rtol=tol)
    # Homogeneous of degree -1, exactly under powers of two.
    assert np.array_equal(Kit(cone).vector("barrier_gradient_dual_into", z * 2.0 ** 40),
                          -p * 2.0 ** -40)


@pytest.mark.parametrize("dual", [False, True])
def test_max_step_against_bisection_never_beyond(m, rng, dual):
    points = ref.dual_points if dual else ref.primal_points
    step = "max_step_dual" if dual else "max_step"
    one = m.ExponentialConeCpp()
    for margins, tol in ((WELL_INSIDE, 1e-10), (NEAR_BOUNDARY, 1e-4)):
        x = points(rng, 80, margins)
        dx = rng.standard_normal(240) * np.abs(x) * 10.0 ** rng.uniform(-1, 2, 240)
        for k in range(80):
            xk, dk = x[3 * k:3 * k + 3], dx[3 * k:3 * k + 3]
            got, exact = getattr(one, step)(xk, dk), ref.max_step(xk, dk, dual)
            if exact == math.inf:
                assert got == math.inf
                continue
            got = ref.D(got)
            assert got <= exact and exact - got <= ref.D(tol) * exact, (xk, dk)
    # The least over blocks and items.
    cone = m.ExponentialConeCpp(2)
    x, dx = points(rng, 6), rng.standard_normal(18)
    each = [getattr(one, step)(x[3 * k:3 * k + 3], dx[3 * k:3 * k + 3]) for k in range(6)]
    assert getattr(cone, step)(x, dx, batch=3) == min(each)


@pytest.mark.parametrize("dual, x, dx, alpha", [
    (False, (0.0, 1.0, 2.0), (-1.0, 0.0, 0.0), math.inf),       # dx in K: unbounded
    (False, (-1.0, 1.0, 1.0), (0.0, -1.0, 0.0), 1.0),           # y reaches 0 at x <= 0
    (False, (1.0, 1.0, 10.0), (0.0, -1.0, 0.0), None),          # ... at x > 0: before it
    (False, (-1.0, 0.0, 2.0), (0.0, 0.0, -1.0), 2.0),           # along the ray
    (False, (-1.0, 0.0, 2.0), (0.0, -1.0, 0.0), 0.0),           # off the ray at once
    (False, (0.0, 1.0, 2.0), (1.0, 0.0, 0.0), math.log(2.0)),
    (True, (-1.0, 0.0, 1.0), (1.0, 0.0, 0.0), 1.0),             # u reaches 0 with v = 0
    (True, (-1.0, 0.0, 1.0), (0.0, 1.0, 0.0), math.inf),        # (0, 1, 0) is in K*
    (True, (0.0, 1.0, 1.0), (0.0, -1.0, 0.0), 1.0),             # along the ray
])
def test_max_step_examples(m, dual, x, dx, alpha):
    one = m.ExponentialConeCpp()
    got = (one.max_step_dual if dual else one.max_step)(np.array(x), np.array(dx))
    exact = ref.max_step(x, dx, dual)
    if alpha is None:
        assert 0 < got <= exact < 1
    else:
        assert got <= alpha and (alpha - got <= 1e-14 * alpha or alpha == math.inf == got)


def test_refusals_name_the_item(m, rng):
    cone = m.ExponentialConeCpp(2)
    kit = Kit(cone, 3)
    s, z = ref.primal_points(rng, 6), ref.dual_points(rng, 6)
    bad_s, bad_z, bad_x = s.copy(), z.copy(), s.copy()
    bad_s[3 * 3 + 1] = 0.0  # item 1, block 1: on the ray, not interior
    bad_z[3 * 4] = 0.5      # item 2, block 0: u > 0
    bad_x[3 * 4 + 1] = -1.0  # item 2: y < 0
    cases = [
        ("barrier gradient: x of item 1 is not strictly interior",
         lambda: kit.vector("barrier_gradient_into", bad_s)),
        ("dual barrier gradient: z of item 2 is not strictly interior",
         lambda: kit.vector("barrier_gradient_dual_into", bad_z)),
        ("NT scaling: s of item 1 is not strictly interior", lambda: kit.scaling(bad_s, z)),
        ("NT scaling: z of item 2 is not strictly interior", lambda: kit.scaling(s, bad_z)),
        ("max_step: x of item 2 is not in the cone", lambda: cone.max_step(bad_x, s, batch=3)),
        ("max_step_dual: x of item 2 is not in the dual cone",
         lambda: cone.max_step_dual(bad_z, z, batch=3)),
    ]
    for message, call in cases:
        with pytest.raises(RuntimeError, match=f"^exponential {message}$"):
            call()


def scaling_of(m, s, z, mu=0.0):
    """(H, H^-1) blocks of one item of len(s) / 3 blocks."""
    cone = m.ExponentialConeCpp(len(s) // 3)
    sc = np.full(cone.scaling_length(), np.nan)
    cone.nt_scaling_into(s, z, sc, mu=mu)
    kit = Kit(cone)
    return blocks_of(kit.hessian(sc), cone.rows // 3), blocks_of(kit.hessian(sc, True),
                                                                  cone.rows // 3)


@pytest.mark.parametrize("margins, tol", [(WELL_INSIDE, 1e-12), (NEAR_BOUNDARY, 1e-9),
                                          ((-9, 0.5), 1e-6)])
def test_scaling_on_pairs_far_from_the_central_path(m, rng, margins, tol):
    """2000 random interior pairs: every one accepted; H exactly symmetric,
    positive definite, H s = z to rounding, H^-1 its inverse. H s~ = z~ holds
    as far as the computed shadow points agree with s^T z~ = z^T s~ = 3 (no
    symmetric H can do better): to rounding well inside, to about rounding /
    margin (the conditioning of psi) next to the boundary."""
    n = 2000
    s, z = ref.primal_points(rng, n, margins), ref.dual_points(rng, n, margins)
    H, Hi = scaling_of(m, s, z)
    st, zt = shadows(m.ExponentialConeCpp(n), s, z)
    assert np.array_equal(H, H.transpose(0, 2, 1)) and np.array_equal(Hi, Hi.transpose(0, 2, 1))
    np.linalg.cholesky(H)
    np.linalg.cholesky(Hi)
    assert ref.backward_error(H, s, z).max() <= 1e-14
    assert ref.backward_error(H, st, zt).max() <= tol
    assert ref.backward_error(Hi, z, s).max() <= 1e-13
    off = np.abs(np.einsum("kij,kjl->kil", H, Hi) - np.eye(3)).max(axis=(1, 2))
    assert np.all(off <= 1e-13 * np.linalg.cond(H))


def rank_four_update(s, z, st, zt, F, mu):
    """Z (Z^T S)^-1 Z^T + Ha - Ha S (S^T Ha S)^-1 S^T Ha, Ha = mu F, as written."""
    S, Z, Ha = np.stack([s, st], 1), np.stack([z, zt], 1), mu * F
    return Z @ np.linalg.solve(Z.T @ S, Z.T) + Ha - Ha @ S @ np.linalg.solve(S.T @ Ha @ S, S.T @ Ha)


@pytest.mark.parametrize("mu", [0.0, 0.3, 40.0])
def test_scaling_is_the_rank_four_update(m, hooks, rng, mu):
    n = 200
    s, z = ref.primal_points(rng, n, WELL_INSIDE), ref.dual_points(rng, n, WELL_INSIDE)
    H = scaling_of(m, s, z, mu)[0]
    st, zt = shadows(m.ExponentialConeCpp(n), s, z)
    F = hooks.exp_hessian(s)
    for k in range(n):
        b = slice(3 * k, 3 * k + 3)
        want = rank_four_update(s[b], z[b], st[b], zt[b], F[k], mu or s[b] @ z[b] / 3)
        assert np.abs(H[k] - want).max() <= 1e-9 * np.abs(want).max()


@pytest.mark.parametrize("distance", [0.0, 1e-15, 1e-12, 1e-9, 1e-7, 1e-5])
def test_scaling_on_and_near_the_central_path(m, hooks, rng, distance):
    """z = mu (z~(s) + a perturbation of relative size `distance`): the
    update, or on the path to working precision its fall-back, maps s to z
    and s~ to z~ to rounding, and differs from mu grad^2 f(s) by O(distance)."""
    n = 300
    s = ref.primal_points(rng, n, WELL_INSIDE)
    mu = np.repeat(10.0 ** rng.uniform(-4, 4, n), 3)
    zt0 = -Kit(m.ExponentialConeCpp(n)).vector("barrier_gradient_into", s)
    z = mu * zt0 * (1 + distance * rng.standard_normal(3 * n))
    H, _ = scaling_of(m, s, z)
    st, zt = shadows(m.ExponentialConeCpp(n), s, z)
    np.linalg.cholesky(H)
    assert ref.backward_error(H, s, z).max() <= 1e-14
    assert ref.backward_error(H, st, zt).max() <= 1e-12
    F = hooks.exp_hessian(s) * mu[::3, None, None]
    gap = np.abs(H - F).max(axis=(1, 2)) / np.abs(F).max(axis=(1, 2))
    assert gap.max() <= 1e4 * max(distance, 1e-13)
    fell_back = hooks.exp_nt_scaling(s, z)[3]
    if distance == 0.0:
        assert all(fell_back)
    elif distance >= 1e-7:
        assert not any(fell_back)


def test_mu_changes_only_the_free_direction(m, rng):
    """H(mu) - H(mu') is rank one and vanishes on s and s~."""
    s, z = ref.primal_points(rng, 50), ref.dual_points(rng, 50)
    st, _ = shadows(m.ExponentialConeCpp(50), s, z)
    a, b = scaling_of(m, s, z, 0.5)[0], scaling_of(m, s, z, 8.0)[0]
    diff = a - b
    for k in range(50):
        sv = np.linalg.svd(diff[k], compute_uv=False)
        assert sv[1] <= 1e-12 * sv[0]
    for v in (s, st):
        image = np.linalg.norm(np.einsum("kij,kj->ki", diff, v.reshape(-1, 3)), axis=1)
        assert np.all(image <= 1e-12 * np.linalg.norm(diff, axis=(1, 2)) *
                      np.linalg.norm(v.reshape(-1, 3), axis=1))


def test_scaling_scales_exactly(m, rng):
    """H(2^a s, 2^b z) = 2^(b - a) H(s, z), bit for bit."""
    s, z = ref.primal_points(rng, 30), ref.dual_points(rng, 30)
    H, Hi = scaling_of(m, s, z)
    for a, b in ((-600, 300), (500, 0), (3, -7)):
        H2, Hi2 = scaling_of(m, s * 2.0 ** a, z * 2.0 ** b)
        assert np.array_equal(H2, H * 2.0 ** (b - a)) and np.array_equal(Hi2, Hi * 2.0 ** (a - b))


def test_batches_match_blocks_and_the_team(m, rng):
    blocks, batch = 2, 5000  # 10000 blocks: the team splits them
    cone, n = m.ExponentialConeCpp(blocks), blocks * batch
    s, z = ref.primal_points(rng, n), ref.dual_points(rng, n)
    sc = Kit(cone, batch).scaling(s, z)
    one = m.ExponentialConeCpp()
    for k in (0, n // 2, n - 1):
        own = np.empty(one.scaling_length())
        one.nt_scaling_into(s[3 * k:3 * k + 3], z[3 * k:3 * k + 3], own)
        assert np.array_equal(sc[12 * k:12 * k + 12], own)
    for method, x in (("barrier_gradient_into", s), ("barrier_gradient_dual_into", z)):
        whole = Kit(cone, batch).vector(method, x)
        assert np.array_equal(whole[-3:], Kit(one).vector(method, x[-3:]))
    assert cone.scaling_length(batch) == 12 * n


@pytest.mark.parametrize("inverse, scale", [(False, 1.0), (True, -2.5)])
def test_fills_write_the_blocks_and_keep_every_other_entry(m, rng, inverse, scale):
    blocks, batch, offset = 2, 3, 2
    cone = m.ExponentialConeCpp(blocks)
    rows = cone.rows
    s, z = ref.primal_points(rng, blocks * batch), ref.dual_points(rng, blocks * batch)
    kit = Kit(cone, batch)
    H = kit.hessian(kit.scaling(s, z), inverse=inverse)
    size = offset + rows * batch + 3
    pattern = sp.random(size, size, density=0.5, random_state=np.random.RandomState(3)).tocoo()
    r, c = pattern.row.astype(np.int64), pattern.col.astype(np.int64)
    want = pattern.data.copy()
    for p, (i, j) in enumerate(zip(r - offset, c - offset)):
        if 0 <= i < rows * batch and 0 <= j < rows * batch and i // rows == j // rows:
            want[p] = scale * H[i // rows][i % rows, j % rows]
    got = pattern.data.copy()
    sc = kit.scaling(s, z)
    cone.nt_hessian_coo_values_into(sc, r, c, got, row_offset=offset, batch=batch,
                                    inverse=inverse, scale=scale)
    assert np.array_equal(got, want)
    csr = sp.csr_matrix((pattern.data, (r, c)), shape=pattern.shape)
    csr.sum_duplicates()
    values = csr.data.copy()
    cone.nt_hessian_csr_values_into(sc, csr.indptr.astype(np.int64), csr.indices.astype(np.int64),
                                    values, row_offset=offset, batch=batch, inverse=inverse,
                                    scale=scale)
    expected = sp.csr_matrix((want, (r, c)), shape=pattern.shape).toarray()
    assert np.array_equal(sp.csr_matrix((values, csr.indices, csr.indptr)).toarray(), expected)
    # Off-block entries of each item's dense H are exactly zero.
    mask = np.kron(np.eye(blocks), np.ones((3, 3))) == 0
    assert np.all(H[:, mask] == 0.0)
