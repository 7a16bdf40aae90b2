"""The exponential cone's dual K* = closure{u < 0, -u e^(v/u) <= e w} on host
arrays: membership and violation against their rule written out in NumPy
(on both sides of the 4096-block threshold), and the Euclidean projection
against Moreau's decomposition x = Pi_K(x) - Pi_K*(-x) with the Euclidean
projection onto K."""
import math

import numpy as np
import pytest
from samples import sample_blocks

import fake_dlpack

E = math.exp(-1.0)


def dual_terms(v):
    """Squared violation per block, the rule in NumPy."""
    u, v, w = v.reshape(-1, 3).T
    with np.errstate(all="ignore"):
        gap = -u * np.vectorize(math.exp, otypes=[float])(np.clip(v / u - 1.0, -745, 709)) - w
        ray = np.sqrt(u * u + np.where(v <= 0, v * v, 0.0) + np.where(w <= 0, w * w, 0.0))
        return np.where(u < 0, np.where(gap > 0, gap * gap, 0.0), ray * ray)


def dual_contains(block, atol):
    u, v, w = block
    if -u > atol:
        return w + atol >= -u * math.exp(min(max(v / u - 1.0, -745.0), 709.0))
    return abs(u) <= atol and v >= -atol and w >= -atol


@pytest.mark.parametrize("block, atol, inside", [
    ((-1, 0, E), 0.0, True), ((-1, 0, 0.36), 1e-8, False), ((-1, 0, E - 5e-9), 1e-8, True),
    ((-2, 2, 2 * math.exp(-2)), 0.0, True), ((1, 1, 1), 1e-8, False),
    ((0, 1, 2), 0.0, True), ((0, -1e-9, 0), 1e-8, True), ((0, -2e-8, 0), 1e-8, False),
    ((1e-9, 1, 1), 1e-8, True), ((-1e-8, 5, -1e-8), 1e-8, True),  # -u = atol: the ray branch
    ((np.nan, 1, 1), 1e-8, False), ((-1, np.nan, 1), 1e-8, False), ((-1, 0, np.nan), 1e-8, False),
])
def test_contains_dual_examples(m, block, atol, inside):
    assert m.ExponentialConeCpp().contains_dual(np.array(block, dtype=float), atol) is inside


@pytest.mark.parametrize("block, violation", [
    ((1, 1, 1), 1.0), ((-1, 0, 0), E), ((0, -3, -4), 5.0), ((-1, 0, 1), 0.0),
    ((2, -3, 4), math.sqrt(13)), ((-1, 3, 0), math.exp(-4)), ((np.nan, 1, 1), math.nan),
])
def test_violation_dual_examples(m, block, violation):
    got = m.ExponentialConeCpp().violation_dual(np.array(block, dtype=float))
    assert got == pytest.approx(violation, rel=1e-15, nan_ok=True)


@pytest.mark.parametrize("blocks", [1, 4096, 4097])
def test_dual_rules_match_reference(m, rng, blocks):
    x = sample_blocks(rng, blocks)
    x[0::3] = -x[0::3]  # mirror u so that both signs reach the dual's branches
    cone = m.ExponentialConeCpp(blocks)
    assert cone.violation_dual(x) == pytest.approx(math.sqrt(dual_terms(x).sum()), rel=1e-12,
                                                   nan_ok=True)
    one = m.ExponentialConeCpp()
    for k in range(min(blocks, 500)):
        b = x[3 * k:3 * k + 3]
        assert one.contains_dual(b, 1e-8) is bool(dual_contains(b, 1e-8))
    inside = np.tile([-1.0, 0.5, 2.0], blocks)
    assert cone.contains_dual(inside)
    inside[-3] = 1e-3  # u > 0 in the last block only
    assert not cone.contains_dual(inside)


def wide_points(rng, k):
    return rng.standard_normal(3 * k) * 10.0 ** rng.uniform(-4, 4, 3 * k)


@pytest.mark.parametrize("scale", [1.0, 2.0 ** -900, 2.0 ** 900])
def test_projection_is_moreaus_decomposition(m, hooks, rng, scale):
    """x = Pi_K(x) - Pi_K*(-x), the parts orthogonal and each in its cone (to
    rounding): that decomposition is unique, so this pins both projections."""
    n = 20000
    x = wide_points(rng, n) * scale
    cone = m.ExponentialConeCpp(n)
    pd = np.empty_like(x)
    cone.project_dual_into(-x, pd)
    pk = hooks.exp_project_euclidean(x)
    size = np.abs(x.reshape(-1, 3)).max(axis=1)
    X, PK, PD = (a.reshape(-1, 3) / size[:, None] for a in (x, pk, pd))
    assert np.all(np.linalg.norm(X - (PK - PD), axis=1) <= 2e-15)
    assert np.all(np.abs((PK * PD).sum(1)) <= 4e-16)
    # Membership (on blocks scaled to 1: the violations square) where no part
    # of the result falls below the normal range.
    for k in range(0, n, 97) if scale == 1.0 else ():
        assert m.ExponentialConeCpp().violation(PK[k]) <= 1e-13
        assert m.ExponentialConeCpp().violation_dual(PD[k]) <= 1e-13
    # The three kinds of answer all occur: x itself, zero, and a boundary point.
    kept, zero = np.all(PD == -X, axis=1), np.all(PD == 0, axis=1)
    assert kept.any() and zero.any() and (~kept & ~zero).any()


@pytest.mark.parametrize("block, expected", [
    ((1, 1, 1), (0, 1, 1)), ((-1, 0, 1), (-1, 0, 1)), ((1, 0, -1), (0, 0, 0)),
    ((0, 0, 0), (0, 0, 0)), ((2, 3, -4), (0, 3, 0)), ((np.nan, 0, 1), (np.nan,) * 3),
])
def test_projection_examples(m, block, expected):
    out = np.full(3, 7.0)
    m.ExponentialConeCpp().project_dual_into(np.array(block, dtype=float), out)
    np.testing.assert_array_equal(out, expected)


def test_projection_is_idempotent_in_place_and_block_by_block(m, rng):
    n = 4097  # the team splits the blocks
    x = wide_points(rng, n)
    cone = m.ExponentialConeCpp(n)
    once = np.empty_like(x)
    cone.project_dual_into(x, once)
    twice = once.copy()
    cone.project_dual_into(twice, twice)
    assert np.all(np.abs(twice - once) <= 1e-14 * np.abs(once).reshape(-1, 3).max(1).repeat(3))
    one = m.ExponentialConeCpp()
    for k in (0, 2048, 4096):
        out = np.empty(3)
        one.project_dual_into(x[3 * k:3 * k + 3], out)
        assert np.array_equal(out, once[3 * k:3 * k + 3])


def test_dual_methods_check_their_arguments(m):
    cone = m.ExponentialConeCpp(2)
    with pytest.raises(RuntimeError, match="^input expected 6 entries, got 3$"):
        cone.project_dual_into(np.ones(3), np.ones(6))
    with pytest.raises(RuntimeError, match="^output expected 6 entries, got 5$"):
        cone.project_dual_into(np.ones(6), np.ones(5))
    with pytest.raises(RuntimeError, match="^input and output must live on the same device$"):
        cone.project_dual_into(np.ones(6), fake_dlpack.cuda(6))
    for call in (cone.violation_dual, cone.contains_dual):
        with pytest.raises(RuntimeError, match="^input expected 6 entries, got 4$"):
            call(np.ones(4))
        with pytest.raises(RuntimeError, match="^CUDA runtime is required for CUDA cone arrays$"):
            call(fake_dlpack.cuda(6))
    with pytest.raises(TypeError):
        cone.contains_dual(np.ones(6, dtype=np.float32))
