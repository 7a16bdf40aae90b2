"""NonnegativeConeCpp on host arrays: edge values, membership on both sides of
the 8192-entry threshold, and the diagonal scaling (a team above 2048). The
projection and violation against NumPy are in test_thread_counts."""
import math

import numpy as np
import pytest
from cone_cases import assert_batch_matches_items, assert_scaling_fails, scaling_of

NOT_POSITIVE = "nonnegative NT scaling requires strictly positive interior inputs"


def test_project_edge_values(m):
    x = np.array([-1.0, 0.0, 2.0, np.nan, -0.0, np.inf, -np.inf])
    m.NonnegativeConeCpp(7).project_into(x, x)  # in place
    assert x.tolist() == [0.0, 0.0, 2.0, 0.0, 0.0, np.inf, 0.0]
    assert not np.signbit(x).any()  # -0.0 and NaN become +0.0
    cone, empty = m.NonnegativeConeCpp(0), np.zeros(0)
    cone.project_into(empty, empty)
    assert (cone.violation(empty), cone.contains(empty, -1.0)) == (0.0, True)


@pytest.mark.parametrize("values, expected", [
    ([-3.0, 4.0, -4.0], 5.0), ([1.0, 0.0, 2.0], 0.0), ([np.nan, -3.0], 3.0)])
def test_violation_values(m, values, expected):
    assert m.NonnegativeConeCpp(len(values)).violation(np.array(values)) == expected


@pytest.mark.parametrize("n, where, entry, atol, inside", [
    (5, 4, -1e-8, 1e-8, True), (5, 4, -2e-8, 1e-8, False), (5, 4, np.nan, 1e-8, True),
    (5, 4, 0.0, -1.0, False), (5, 4, -0.5, 0, False), (8192, 8191, -2e-8, 1e-8, False),
    (9000, 0, -2e-8, 1e-8, False), (9000, 4500, np.nan, 1e-8, True),
    (9000, 8999, -1e-8, 1e-8, True), (9000, 8999, -2e-8, 1e-8, False)])
def test_contains(m, n, where, entry, atol, inside):
    x = np.ones(n)
    x[where] = entry
    assert m.NonnegativeConeCpp(n).contains(x, atol=atol) is inside


@pytest.mark.parametrize("n", [6, 2048, 2049])
def test_scaling_is_the_diagonal_of_ratios(m, rng, n):
    s, z = rng.uniform(0.1, 3.0, n), rng.uniform(0.1, 3.0, n)
    cone = m.NonnegativeConeCpp(n)
    np.testing.assert_array_equal(scaling_of(cone, s, z).reshape(n, n), np.diag(z / s))
    assert cone.nt_scaling_matrix_array(s, z).shape == (n, n)


def test_batch_layout_and_nan_passing_positivity(m):
    out = np.full(8, 5.0)
    m.NonnegativeConeCpp(2).nt_scaling_matrix_batch_into(np.array([1.0, 2, 4, 8]), np.ones(4),
                                                         out, 2)
    assert out.tolist() == [1, 0, 0, 0.5, 0.25, 0, 0, 0.125]
    s, z = np.array([1.0, np.nan]), np.array([2.0, 1.0])
    got = m.NonnegativeConeCpp(2).nt_scaling_matrix_array(s, z).ravel()
    assert got[0] == 2.0 and math.isnan(got[3]) and got[1] == got[2] == 0.0


@pytest.mark.parametrize("which, bad", [("s", 0.0), ("s", -1.0), ("z", -0.0)])
def test_non_positive_fails_and_leaves_output(m, which, bad):
    dim, batch = 3, 4
    s, z = np.ones(dim * batch), np.full(dim * batch, 2.0)
    {"s": s, "z": z}[which][-1] = bad  # last entry of the last block
    cone = m.NonnegativeConeCpp(dim)
    assert_scaling_fails(cone, s[-dim:], z[-dim:], NOT_POSITIVE)
    out = np.full(dim * dim * batch, 3.0)
    with pytest.raises(RuntimeError, match=f"^{NOT_POSITIVE}$"):
        cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    assert (out == 3.0).all()


@pytest.mark.parametrize("dim, batch", [(3, 5), (1, 8193), (100, 82), (4, 0)])
def test_batch_matches_single(m, rng, dim, batch):
    s, z = rng.uniform(0.5, 2.0, dim * batch), rng.uniform(0.5, 2.0, dim * batch)
    assert_batch_matches_items(m.NonnegativeConeCpp(dim), s, z, batch)
