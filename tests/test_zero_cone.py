"""Zero cone on host arrays: every operation and its edge cases (the
violation sum and the thread thresholds are in test_thread_counts)."""
import numpy as np
import pytest
from cone_cases import assert_scaling_fails, scaling_of

ZERO_PAIR = "zero-cone NT scaling requires zero primal and dual vectors"


@pytest.mark.parametrize("n", [0, 1, 8193])
@pytest.mark.parametrize("aliased", [False, True])
def test_projection_writes_positive_zeros(m, rng, n, aliased):
    x = rng.standard_normal(n)
    x[::5] = np.nan
    out = x if aliased else np.full(n, -1.0)
    m.ZeroConeCpp(n).project_into(x, out)
    assert np.all(out == 0.0) and not np.any(np.signbit(out))


@pytest.mark.parametrize("x, atol, expected", [
    ([1e-8, -1e-8, 0.0], 1e-8, True), ([0.0, 1.5e-8, 0.0], 1e-8, False),
    ([0.0, np.nan, 0.0], 1e-8, True), ([np.inf, 0.0, 0.0], 1e300, False),
    ([0.0, 0.0, 0.0], -1e-8, False), ([0.0, 0.0, 0.0], 0.0, True)])
def test_membership(m, x, atol, expected):
    assert m.ZeroConeCpp(3).contains(np.array(x), atol) is expected


@pytest.mark.parametrize("entry, ok", [(1e-11, True), (1e-9, False), (np.nan, True)])
@pytest.mark.parametrize("where", ["s", "z"])
def test_nt_scaling_zero_test(m, entry, ok, where):
    cone = m.ZeroConeCpp(3)
    zero, bumped = np.zeros(3), np.array([0.0, entry, 0.0])
    s, z = (bumped, zero) if where == "s" else (zero, bumped)
    if ok:
        assert np.array_equal(scaling_of(cone, s, z), np.eye(3).ravel())
    else:
        assert_scaling_fails(cone, s, z, ZERO_PAIR)


@pytest.mark.parametrize("dim, batch, bad", [(2, 3, None), (3, 0, None), (0, 4, None), (2, 3, 5)])
def test_batch_writes_identity_blocks_after_testing_every_item(m, dim, batch, bad):
    s, out = np.zeros(dim * batch), np.full(dim * dim * batch, 3.0)
    if bad is None:
        m.ZeroConeCpp(dim).nt_scaling_matrix_batch_into(s, s, out, batch)
        assert np.array_equal(out, np.tile(np.eye(dim).ravel(), batch))
        return
    s[bad] = 1e-5  # last entry of the last item
    with pytest.raises(RuntimeError, match=ZERO_PAIR):
        m.ZeroConeCpp(dim).nt_scaling_matrix_batch_into(np.zeros(dim * batch), s, out, batch)
    assert np.all(out == 3.0)


def test_violation_is_the_norm_and_overflows_above_1e154(m):
    assert m.ZeroConeCpp(2).violation(np.array([3.0, -4.0])) == 5.0
    assert m.ZeroConeCpp(1).violation(np.array([1e200])) == np.inf
