"""The host Jacobi eigen-solver: the per-row-maxima pivot search makes
exactly the rotations of the full scan (same bits, ties and NaN included),
off-diagonal entries are rotated away down to the 1e-12 threshold and not
below it, and the result is an eigen-decomposition."""
import numpy as np
import pytest


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
SPECIAL = [
    np.zeros((6, 6)), np.ones((5, 5)), np.eye(6) - np.ones((6, 6)), MOVED_TO_P, MOVED_TO_Q,
    np.array([[1.0, NAN, 2.0], [NAN, 1.0, 3.0], [2.0, 3.0, NAN]]),
    np.array([[1.0, 3.0, NAN], [3.0, 1.0, 5.0], [NAN, 5.0, 2.0]]),   # a row maximum turns NaN
    np.array([[1.0, 5.0, 0.0], [5.0, np.inf, 1.0], [0.0, 1.0, 2.0]]),
    np.arange(16.0).reshape(4, 4),   # not symmetric: only the upper triangle is searched
]


@pytest.mark.parametrize("a", [(n, kind) for kind in ("random", "ties", "graded", "clustered")
                               for n in (2, 3, 5, 8, 13, 32, 64)] + SPECIAL)
def test_fast_search_rotates_exactly_like_the_full_scan(hooks, rng, a):
    a = symmetric(rng, *a) if isinstance(a, tuple) else a
    flat = np.ascontiguousarray(a).ravel()
    fast, full = hooks.jacobi_eigh(flat, len(a)), hooks.jacobi_eigh_reference(flat, len(a))
    assert all(np.array_equal(x, y, equal_nan=True) for x, y in zip(fast, full))


@pytest.mark.parametrize("entry, rotated", [(2e-12, True), (9e-13, False)])
def test_entries_below_the_threshold_are_left(hooks, entry, rotated):
    a = np.array([[4.0, entry, 0.0], [entry, -1.0, 0.0], [0.0, 0.0, 2.0]])
    values, v = hooks.jacobi_eigh(a.ravel(), 3)
    assert np.array_equal(v, np.eye(3)) is not rotated
    assert np.array_equal(values, [4.0, -1.0, 2.0]) or rotated


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
