"""ExponentialConeCpp on host arrays: documented values of its projection
rule (the NumPy reference on both sides of the 4096-block threshold is in
test_thread_counts), violation and membership, and the scaling blocks
(W s = z, symmetric, block diagonal), their messages and failing batches."""
import math

import numpy as np
import pytest
from cone_cases import assert_scaling_fails, projected, scaling_of
from samples import interior_blocks

NOT_INTERIOR = "exponential scaling requires strictly interior cone vectors"
BAD_NORM = "exponential scaling source vector must have nonzero finite norm"


@pytest.mark.parametrize("block, expected, violation", [
    ((0, 1, 0), (0, 1, 1), 1.0),
    ((0, 1, 1 - 5e-9), (0, 1, 1 - 5e-9), 5e-9),  # within the 1e-8 tolerance
    ((0, 1, 2), (0, 1, 2), 0.0),
    ((1, 0, 5), (0, 0, 5), 1.0),
    ((-1, 0, -2), (-1, 0, 0), 2.0),
    ((-1, 0, 1), (-1, 0, 1), 0.0),
    ((2, -3, 4), (0, 0, 4), math.sqrt(13)),
    ((-1, 1e-9, -1e-9), (-1, 1e-9, -1e-9), 1e-9),  # ratio clamped to -745; z kept
    ((0.5, 1e-9, 0), (0.5, 1e-9, 1e-9 * math.exp(709)), math.inf),  # ratio clamped to 709
    ((np.nan, np.nan, -1), (np.nan, 0, 0), math.nan),  # NaN y: the clearing branch
    ((np.nan, -1, 0), (np.nan, 0, 0), 1.0),
    ((0, np.nan, 0), (0, 0, 0), math.nan),
])
def test_project_and_violation_examples(m, block, expected, violation):
    block = np.array(block, dtype=np.float64)
    np.testing.assert_array_equal(projected(m.ExponentialConeCpp(), block), expected)
    assert m.ExponentialConeCpp().violation(block) == pytest.approx(violation, rel=1e-7,
                                                                     nan_ok=True)


@pytest.mark.parametrize("block, atol, inside", [
    ((-1, 0, 0), 1e-8, True), ((0, 0, 0), 1e-8, True), ((1, 0, 0), 1e-8, False),
    ((0, 1, 1), 1e-8, True), ((0, 1, 1 - 1e-8), 1e-8, True), ((0, 1, 1 - 2e-8), 1e-8, False),
    # y = atol takes the ray branch, though y exp(x / y) > z + atol there.
    ((1e-8, 1e-8, -1e-8), 1e-8, True), ((1e-8, 1e-8, -1e-8), 0.5e-8, False),
    ((0, -1e-8, 0), 1e-8, True), ((0, -2e-8, 0), 1e-8, False), ((0, 0, 0), 0, True),
    ((np.nan, 1, 5), 1e-8, False), ((np.nan, 0, 0), 1e-8, False), ((0, np.nan, 5), 1e-8, False),
])
def test_contains_examples(m, block, atol, inside):
    assert m.ExponentialConeCpp().contains(np.array(block, dtype=np.float64), atol) is inside


def test_scaling_example(m):
    s, z = np.array([0.0, 1.0, 2.0]), np.array([0.0, 1.0, 3.0])
    mat = scaling_of(m.ExponentialConeCpp(), s, z, True).reshape(3, 3)
    np.testing.assert_allclose(mat, [[1, 0, 0], [0, 0.92, 0.04], [0, 0.04, 1.48]], atol=1e-15)
    np.testing.assert_allclose(mat @ s, z, atol=1e-15)


def test_scaling_is_block_diagonal_symmetric_and_maps_s_to_z(m, rng):
    # The list and array forms group each entry's sum otherwise than the
    # written forms (into, batch); every entry off the 3 x 3 blocks is 0.0.
    blocks = 40
    s, z = interior_blocks(rng, blocks), interior_blocks(rng, blocks)
    cone, n = m.ExponentialConeCpp(blocks), 3 * blocks
    dense = scaling_of(cone, s, z, True).reshape(n, n)
    written = np.full(n * n, np.nan)
    cone.nt_scaling_matrix_batch_into(s, z, written, 1)
    on_blocks = np.kron(np.eye(blocks), np.ones((3, 3))) == 1
    for w in (dense, written.reshape(n, n)):
        assert np.all(w[~on_blocks] == 0.0)
        np.testing.assert_allclose(w, w.T, rtol=1e-15, atol=1e-15)
        np.testing.assert_allclose(w @ s, z, rtol=1e-13)


def test_scaling_of_equal_pair_is_identity(m, rng):
    s = interior_blocks(rng, 3)
    got = scaling_of(m.ExponentialConeCpp(3), s, s.copy(), True)
    np.testing.assert_array_equal(got, np.eye(9).ravel())


@pytest.mark.parametrize("bad", [(-1, 0, 1), (0, 1, 1), (0, -1, 5), (np.nan, 1, 5), (0, 1, np.nan)])
@pytest.mark.parametrize("which", ["s0", "z0", "s1", "z1"])
def test_non_interior_blocks_fail(m, rng, bad, which):
    s, z = interior_blocks(rng, 2), interior_blocks(rng, 2)
    k = int(which[1])
    {"s": s, "z": z}[which[0]][3 * k:3 * k + 3] = bad
    assert_scaling_fails(m.ExponentialConeCpp(2), s, z, NOT_INTERIOR, untouched=False)


def test_norm_overflow_only_checked_by_dense_forms(m):
    s = np.array([0.0, 1e200, 1e201])  # interior, but |s|^2 overflows
    cone = m.ExponentialConeCpp()
    for dense in (cone.nt_scaling_matrix, cone.nt_scaling_matrix_array):
        with pytest.raises(RuntimeError, match=f"^{BAD_NORM}$"):
            dense(s, s)
    cone.nt_scaling_matrix_batch_into(s, s, np.empty(9), 1)


@pytest.mark.parametrize("pair", [0, 2048, 4096])
def test_batch_failure_inside_team_is_raised(m, rng, pair):
    s, z = interior_blocks(rng, 4097), interior_blocks(rng, 4097)
    z[3 * pair + 2] = 0.0
    with pytest.raises(RuntimeError, match=f"^{NOT_INTERIOR}$"):
        m.ExponentialConeCpp(1).nt_scaling_matrix_batch_into(s, z, np.empty(9 * 4097), 4097)
