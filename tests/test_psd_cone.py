"""PsdConeCpp on host arrays: projection and violation against NumPy's
eigen-decomposition, the documented small cases (a NaN off the diagonal is
never a Jacobi pivot), membership, the 2 x 2 closed forms the device runs,
and the device-only messages."""
import numpy as np
import pytest

import fake_dlpack as fake
from cone_cases import RUNTIME, projected

R2 = np.sqrt(2.0)


@pytest.mark.parametrize("n", [2, 3, 7, 25])
def test_projection_and_violation_match_eigh(m, rng, n):
    cone = m.PsdConeCpp(n)
    for x in rng.standard_normal((5, cone.rows)):
        w, v = np.linalg.eigh(m.psd_smat(x, n))
        out = projected(cone, x)
        assert out == pytest.approx(m.psd_svec(((v * np.maximum(w, 0.0)) @ v.T).ravel(), n),
                                    abs=1e-11 * n)
        assert cone.violation(x) == pytest.approx(np.linalg.norm(np.minimum(w, 0.0)), rel=1e-11)
        assert cone.violation(out) < 1e-11 * n


@pytest.mark.parametrize("dim, x, projection, violation", [
    (1, [3.0], [3.0], 0.0), (1, [-2.0], [0.0], 2.0), (2, [2.0, 0.0, -3.0], [2.0, 0.0, 0.0], 3.0),
    (2, [1.0, R2 * 1e-13, -1.0], [1.0, 0.0, 0.0], 1.0),   # counts as diagonal
    (2, [1.0, np.nan, -1.0], [1.0, 0.0, 0.0], 1.0),       # a NaN is never a pivot
    (3, [-1.0, 0.0, 5.0, 0.0, 0.0, -0.5], [0.0, 0.0, 5.0, 0.0, 0.0, 0.0], np.hypot(1, 0.5)),
])
def test_documented_cases_are_exact(m, dim, x, projection, violation):
    cone = m.PsdConeCpp(dim)
    x = np.array(x)
    assert list(projected(cone, x)) == projection and cone.violation(x) == violation


def test_indefinite_two_by_two_membership_and_in_place(m):
    cone = m.PsdConeCpp(2)
    x = np.array([1.0, 2.0 * R2, 1.0])
    v = cone.violation(x)
    assert v == pytest.approx(1.0, rel=1e-15)
    assert cone.contains(x, v) is True and cone.contains(x, np.nextafter(v, 0.0)) is False
    assert cone.contains(x) is False and cone.contains(np.array([1.0, 0.0, 1.0]), 0) is True
    assert cone.contains(np.array([np.nan, 0.0, 1.0]), 0.0) is True   # NaN is not negative
    cone.project_into(x, x)
    assert x == pytest.approx([1.5, 1.5 * R2, 1.5], rel=1e-15)


@pytest.mark.parametrize("dim", [1, 3])
@pytest.mark.parametrize("method, what", [("project_into", "projection"),
                                          ("violation", "violation"), ("contains", "membership")])
def test_device_arrays_need_the_runtime_then_dim_two(m, dim, method, what):
    # Never dim 2 here: a fake array must not reach a kernel on a GPU machine.
    cone = m.PsdConeCpp(dim)
    expected = (f"CUDA PSD {what} currently supports dim=2" if m.has_cuda() else RUNTIME)
    with pytest.raises(RuntimeError) as err:
        getattr(cone, method)(*[fake.cuda(cone.rows)] * (2 if method == "project_into" else 1))
    assert str(err.value) == expected


@pytest.mark.parametrize("x, projection, violation", [
    ("random", None, None), ([-2.0, 0.0, -2.0], [0.0, 0.0, 0.0], np.hypot(2.0, 2.0)),
    ([3.0, 1e-15, 3.0], [3.0, 0.0, 3.0], 0.0),           # half-gap below 1e-14: 3 I
    ([-1.0, 0.0, 4.0], [0.0, 0.0, 4.0], 1.0), ([np.nan, 0.0, 1.0], [np.nan] * 3, np.nan),
])
def test_closed_forms_of_the_device_agree_with_the_host(m, hooks, rng, x, projection, violation):
    if projection is not None:
        p, v = hooks.psd2_closed_form(np.array(x))
        assert np.array_equal(p, projection, equal_nan=True)
        assert np.array_equal(v, violation, equal_nan=True)
        return
    for x in rng.standard_normal((200, 3)) * 10.0 ** rng.integers(-3, 4, (200, 1)):
        p, v = hooks.psd2_closed_form(x)
        scale = np.max(np.abs(x))
        assert p == pytest.approx(projected(m.PsdConeCpp(2), x), abs=1e-14 * scale)
        assert v == pytest.approx(m.PsdConeCpp(2).violation(x), rel=1e-13, abs=1e-15 * scale)
