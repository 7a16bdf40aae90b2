"""The limits the README's numerical notes describe: √Σx² norms overflow for
entries above about 1.3e154, and a NaN off the diagonal of a PSD input never
becomes a Jacobi pivot, so it does not reach the results."""
import numpy as np
import pytest

from cone_cases import projected


@pytest.mark.parametrize("x, expected", [
    ([1.3e154, 0.0, 1.3e154], [1.3e154, 0.0, 1.3e154]),   # squares still finite
    ([1.4e154, 0.0, 1.4e154], [np.inf, np.nan, np.nan]),  # the same boundary point, overflowed
    ([1e200, 1e200], [np.inf, np.nan]),
])
def test_second_order_norm_overflows_above_the_root_of_the_largest_double(m, x, expected):
    np.testing.assert_array_equal(projected(m.SecondOrderConeCpp(len(x)), np.array(x)), expected)


@pytest.mark.parametrize("cls, x", [("ZeroConeCpp", 1e200), ("NonnegativeConeCpp", -1e200)])
def test_violation_of_a_huge_entry_is_infinite(m, cls, x):
    assert getattr(m, cls)(1).violation(np.array([x])) == np.inf


@pytest.mark.parametrize("dim, svec", [(2, [1.0, np.nan, -1.0]),
                                       (3, [1.0, np.nan, 2.0, 1.0, 0.0, -1.0])])
def test_psd_nan_off_the_diagonal_does_not_reach_the_results(m, dim, svec):
    cone, x = m.PsdConeCpp(dim), np.array(svec)
    assert np.isfinite(projected(cone, x)).all()
    assert np.isfinite(cone.violation(x)) and cone.violation(x) > 0
