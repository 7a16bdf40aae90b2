"""SecondOrderConeCpp on host arrays: projection, violation and membership
against NumPy and their edge cases, and the overflow of √Σx² norms above
about 1.3e154 that the numerical notes describe."""
import math

import numpy as np
import pytest
from cone_cases import projected, sequential_sum
from samples import soc_projection, soc_sample

NAN = np.nan


@pytest.mark.parametrize("dim", [2, 3, 8192])  # up to 8192 every sum is in index order
@pytest.mark.parametrize("kind", ["inside", "polar", "between"])
def test_projection_violation_membership_match_numpy(m, rng, dim, kind):
    cone = m.SecondOrderConeCpp(dim)
    x = soc_sample(kind, dim, rng)
    out = projected(cone, x)
    expected = soc_projection(x, math.sqrt(sequential_sum(float(v) * float(v) for v in x[1:])))
    np.testing.assert_array_equal(out, expected)
    assert cone.violation(x) == math.sqrt(sequential_sum(float(v) * float(v) for v in x - out))
    assert cone.contains(x) == (kind == "inside")
    assert kind != "inside" or (np.array_equal(out, x) and cone.violation(x) == 0.0)
    cone.project_into(x, x)  # input and output may be one array
    assert np.array_equal(x, out)


@pytest.mark.parametrize("x, expected, violation, contained", [
    ([0.0, 3.0, 4.0], [2.5, 1.5, 2.0], math.sqrt(12.5), False),
    ([-5.0, 3.0, 4.0], [0.0, 0.0, 0.0], math.sqrt(50.0), False),
    ([0.0, 1.0], [0.5, 0.5], math.sqrt(0.5), False),
    ([2.5], [2.5], 0.0, True), ([-3.0], [0.0], 3.0, False), ([-5e-9], [0.0], 5e-9, True),
    ([NAN, 3.0, 4.0], [NAN, NAN, NAN], NAN, False),
    # A NaN tail norm fails both tests; the scale factor is then 0.
    ([1.0, NAN, 2.0], [NAN, NAN, 0.0], NAN, False),
    ([1.3e154, 0.0, 1.3e154], [1.3e154, 0.0, 1.3e154], 0.0, True),  # squares still finite
    ([1.4e154, 0.0, 1.4e154], [np.inf, NAN, NAN], NAN, False),      # the same, overflowed
])
def test_documented_points_dim_one_nan_and_overflow(m, x, expected, violation, contained):
    cone = m.SecondOrderConeCpp(len(x))
    x = np.array(x)
    np.testing.assert_array_equal(projected(cone, x), expected)
    assert cone.violation(x) == pytest.approx(violation, rel=1e-14, abs=0, nan_ok=True)
    assert cone.contains(x) is contained


@pytest.mark.parametrize("shortfall,atol,contained",
                         [(0.0, 0.0, True), (1e-12, 0.0, False), (5e-9, 1e-8, True),
                          (2e-8, 1e-8, False), (0.0, -1e-6, False)])
def test_contains_tolerance(m, shortfall, atol, contained):
    cone = m.SecondOrderConeCpp(3)
    x = np.array([5.0 - shortfall, 3.0, 4.0])
    assert cone.contains(x, atol=atol) is contained
