"""NonnegativeConeCpp on host arrays: edge values, violation, membership on
both sides of the 8192-entry threshold, and the diagonal scaling (a team
above 2048). The projection against NumPy is in test_thread_counts."""
import numpy as np
import pytest
from cone_cases import assert_scaling_fails, scaling_of

NOT_POSITIVE = "nonnegative NT scaling requires strictly positive interior inputs"


def test_project_edge_values(m):
    x = np.array([-1.0, 0.0, 2.0, np.nan, -0.0, np.inf, -np.inf])
    m.NonnegativeConeCpp(7).project_into(x, x)  # in place
    assert x.tolist() == [0.0, 0.0, 2.0, 0.0, 0.0, np.inf, 0.0]
    assert not np.signbit(x).any()  # -0.0 and NaN become +0.0


@pytest.mark.parametrize("values, expected", [
    ([-3.0, 4.0, -4.0], 5.0), ([1.0, 0.0, 2.0], 0.0), ([np.nan, -3.0], 3.0), ([-1e200], np.inf)])
def test_violation_values(m, values, expected):
    assert m.NonnegativeConeCpp(len(values)).violation(np.array(values)) == expected


@pytest.mark.parametrize("n, where, entry, atol, inside", [
    (5, 4, -1e-8, 1e-8, True), (5, 4, -2e-8, 1e-8, False), (5, 4, np.nan, 1e-8, True),
    (5, 4, 0.0, -1.0, False), (8192, 8191, -2e-8, 1e-8, False), (9000, 0, -2e-8, 1e-8, False),
    (9000, 4500, np.nan, 1e-8, True), (9000, 8999, -1e-8, 1e-8, True),
    (9000, 8999, -2e-8, 1e-8, False)])
def test_contains(m, n, where, entry, atol, inside):
    x = np.ones(n)
    x[where] = entry
    assert m.NonnegativeConeCpp(n).contains(x, atol=atol) is inside


@pytest.mark.parametrize("n", [6, 2049])
def test_scaling_is_the_diagonal_of_ratios(m, rng, n):
    s, z = rng.uniform(0.1, 3.0, n), rng.uniform(0.1, 3.0, n)
    s[0] = np.nan  # NaN passes the positivity test
    np.testing.assert_array_equal(scaling_of(m.NonnegativeConeCpp(n), s, z).reshape(n, n),
                                  np.diag(z / s))


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
