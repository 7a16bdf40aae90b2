"""The host Jacobi eigen-solver: the per-row-maxima pivot search must make
exactly the rotations of the documented full scan (same bits), and the
result must be an eigen-decomposition."""
import numpy as np
import pytest
from samples import documented_jacobi


def symmetric(rng, n, kind):
    if kind == "random":
        a = rng.standard_normal((n, n))
    elif kind == "ties":      # many equal magnitudes: tie-breaking decides every pivot
        a = rng.choice([-2.0, -1.0, 1.0, 2.0], size=(n, n))
    elif kind == "graded":    # entries spanning many orders of magnitude
        a = rng.standard_normal((n, n)) * 10.0 ** rng.integers(-14, 6, (n, n))
    elif kind == "clustered":  # repeated eigenvalues
        q, _ = np.linalg.qr(rng.standard_normal((n, n)))
        a = q @ np.diag(np.repeat([1.0, -3.0], (n + 1) // 2)[:n]) @ q.T
    return np.triu(a) + np.triu(a, 1).T


def both(hooks, a):
    n = a.shape[0]
    flat = np.ascontiguousarray(a, dtype=np.float64).ravel()
    return hooks.jacobi_eigh(flat, n), hooks.jacobi_eigh_reference(flat, n)


def assert_identical(fast, ref):
    assert all(np.array_equal(x, y, equal_nan=True) for x, y in zip(fast, ref))


@pytest.mark.parametrize("kind", ["random", "ties", "graded", "clustered"])
@pytest.mark.parametrize("n", [2, 3, 4, 5, 7, 8, 13, 21, 32, 50, 64])
def test_fast_search_rotates_exactly_like_the_full_scan(hooks, rng, n, kind):
    fast, ref = both(hooks, symmetric(rng, n, kind))
    assert_identical(fast, ref)


def with_entries(n, entries):
    a = np.zeros((n, n))
    for (i, j), value in entries.items():
        a[i, j] = a[j, i] = value
    return a


# With A[p][p] = 1e6, A[q][q] = 0 and pivot 1e-11 the rotation is a quarter
# turn with s = 1.0 exactly: it moves A[r][q] to column p (or A[r][p] to
# column q) without rounding, creating an exact tie with another entry of
# row r. The next pivot then depends on breaking that tie by column.
MOVED_TO_P = with_entries(4, {(0, 2): 5e-12, (0, 3): 5e-12, (1, 3): 1e-11, (1, 1): 1e6})
MOVED_TO_Q = with_entries(5, {(0, 1): 5e-12, (0, 2): 5e-12, (0, 3): 5e-12, (2, 4): 1e-11,
                              (2, 2): 1e6})
NAN = np.nan


@pytest.mark.parametrize("a", [
    np.zeros((6, 6)), np.diag([3.0, -1.0, 0.0, 2.0]), np.ones((5, 5)),
    np.eye(6) - np.ones((6, 6)),   # off-diagonal ties
    MOVED_TO_P, MOVED_TO_Q,
    np.array([[1.0, NAN, 2.0], [NAN, 1.0, 3.0], [2.0, 3.0, NAN]]),
    np.array([[1.0, 3.0, NAN], [3.0, 1.0, 5.0], [NAN, 5.0, 2.0]]),   # a row maximum turns NaN
    np.array([[1.0, NAN, 2.0], [NAN, 1.0, 1.0], [2.0, 1.0, 3.0]]),   # NaN before the maximum
    np.array([[1.0, 5.0, 0.0], [5.0, np.inf, 1.0], [0.0, 1.0, 2.0]]),
    np.arange(16.0).reshape(4, 4),   # not symmetric: only the upper triangle is searched
    (1, "random"), (2, "random"), (4, "ties"), (6, "random"), (7, "graded"),
    np.array([[2.0, 1.0], [1.0, 2.0]]),   # one quarter turn
    np.array([[4.0, 9e-13, 0.0], [9e-13, -1.0, -9e-13], [0.0, -9e-13, 2.0]]),   # below threshold
])
def test_both_searches_are_the_documented_algorithm_bit_for_bit(hooks, rng, a):
    if isinstance(a, tuple):
        a = symmetric(rng, *a)
    fast, ref = both(hooks, a)
    assert_identical(ref, documented_jacobi(a))
    assert_identical(fast, ref)


@pytest.mark.parametrize("n", [2, 5, 17, 40, 100])
def test_result_is_an_eigen_decomposition(hooks, rng, n):
    a = symmetric(rng, n, "random")
    values, v = hooks.jacobi_eigh(a.ravel(), n)
    assert np.allclose(a @ v, v * values, atol=1e-11 * n)
    assert np.allclose(v.T @ v, np.eye(n), atol=1e-13 * n)
    assert np.allclose(np.sort(values), np.linalg.eigvalsh(a), atol=1e-12 * n)


def test_orders_whose_sizes_overflow_are_refused(hooks):
    with pytest.raises(ValueError, match="^PSD matrix order too large: dim \\* dim overflows$"):
        hooks.jacobi_eigh(np.zeros(0), 2**32)
