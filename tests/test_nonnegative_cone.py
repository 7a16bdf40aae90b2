"""NonnegativeConeCpp on host arrays against NumPy, its argument checks with
fake device arrays, and its parallel loops at the 8192-entry threshold."""
import math

import numpy as np
import pytest
from cone_cases import check_cases, run_with_threads, sequential_sum, two_stage_sums

NOT_POSITIVE = "nonnegative NT scaling requires strictly positive interior inputs"


def test_sizes(m):
    assert (m.NonnegativeConeCpp(0).dim, m.NonnegativeConeCpp(dim=7).rows) == (0, 7)


def test_project_edge_values(m):
    x = np.array([-1.0, 0.0, 2.0, np.nan, -0.0, np.inf, -np.inf])
    m.NonnegativeConeCpp(7).project_into(x, x)  # in place
    assert x.tolist() == [0.0, 0.0, 2.0, 0.0, 0.0, np.inf, 0.0]
    assert not np.signbit(x).any()  # -0.0 and NaN become +0.0


@pytest.mark.parametrize("n", [0, 8192, 8193, 30001])
def test_project_violation_contains_against_numpy(m, rng, n):
    x = rng.standard_normal(n)
    out = np.empty(n)
    cone = m.NonnegativeConeCpp(n)
    cone.project_into(x, out)
    np.testing.assert_array_equal(out, np.where(x > 0, x, 0.0))
    expected = math.sqrt(sequential_sum(np.where(x < 0, x * x, 0.0)))
    assert cone.violation(x) == pytest.approx(expected, rel=1e-13)
    assert cone.contains(out)
    assert cone.contains(x) is (n == 0 or bool(x.min() >= -1e-8))


@pytest.mark.parametrize("values, expected", [
    ([-3.0, 4.0, -4.0], 5.0), ([1.0, 0.0, 2.0], 0.0), ([np.nan, -3.0], 3.0)])
def test_violation_values(m, values, expected):
    assert m.NonnegativeConeCpp(len(values)).violation(np.array(values)) == expected


@pytest.mark.parametrize("entry, atol, inside", [
    (-1e-8, 1e-8, True), (-2e-8, 1e-8, False), (np.nan, 1e-8, True), (0.0, -1.0, False),
    (-0.5, 0, False), (-0.5, 0.5, True)])
@pytest.mark.parametrize("n, where", [(5, 4), (8192, 8191), (9000, 0), (9000, 4500), (9000, 8999)])
def test_contains(m, n, where, entry, atol, inside):
    x = np.ones(n)
    x[where] = entry
    assert m.NonnegativeConeCpp(n).contains(x, atol=atol) is inside


def test_scaling_forms(m, rng):
    n = 6
    s, z = rng.uniform(0.1, 3.0, n), rng.uniform(0.1, 3.0, n)
    cone = m.NonnegativeConeCpp(n)
    expected = np.diag(z / s)
    into = np.full(n * n, 7.0)
    cone.nt_scaling_matrix_into(s, z, into)
    for got in (np.array(cone.nt_scaling_matrix(s, z)), cone.nt_scaling_matrix_array(s, z), into):
        np.testing.assert_array_equal(got.reshape(n, n), expected)
    assert cone.nt_scaling_matrix_array(s, z).shape == (n, n)
    np.testing.assert_allclose(expected @ s, z, rtol=1e-15)  # W s = z
    two = m.NonnegativeConeCpp(2)
    assert two.nt_scaling_matrix(np.array([1.0, 2.0]), np.array([3.0, 4.0])) == [3, 0, 0, 2]
    out = np.full(8, 5.0)
    two.nt_scaling_matrix_batch_into(np.array([1.0, 2, 4, 8]), np.ones(4), out, 2)
    assert out.tolist() == [1, 0, 0, 0.5, 0.25, 0, 0, 0.125]


def test_nan_passes_positivity(m):
    s, z = np.array([1.0, np.nan]), np.array([2.0, 1.0])
    got = m.NonnegativeConeCpp(2).nt_scaling_matrix_array(s, z).ravel()
    assert got[0] == 2.0 and math.isnan(got[3]) and got[1] == got[2] == 0.0


@pytest.mark.parametrize("bad", [("s", 0.0), ("s", -1.0), ("z", -0.0)])
@pytest.mark.parametrize("form", ["list", "array", "into", "batch"])
def test_non_positive_fails_and_leaves_output(m, bad, form):
    dim, batch = 3, 4
    s, z = np.ones(dim * batch), np.full(dim * batch, 2.0)
    {"s": s, "z": z}[bad[0]][-1] = bad[1]  # last entry of the last block
    cone = m.NonnegativeConeCpp(dim)
    out = np.full(dim * dim * batch, 3.0)
    calls = {"list": lambda: cone.nt_scaling_matrix(s[-dim:], z[-dim:]),
             "array": lambda: cone.nt_scaling_matrix_array(s[-dim:], z[-dim:]),
             "into": lambda: cone.nt_scaling_matrix_into(s[-dim:], z[-dim:], out[:dim * dim]),
             "batch": lambda: cone.nt_scaling_matrix_batch_into(s, z, out, batch)}
    with pytest.raises(RuntimeError, match=f"^{NOT_POSITIVE}$"):
        calls[form]()
    assert (out == 3.0).all()


@pytest.mark.parametrize("dim, batch", [(3, 5), (1, 8193), (100, 82), (4, 0)])
def test_batch_matches_single(m, rng, dim, batch):
    s, z = rng.uniform(0.5, 2.0, dim * batch), rng.uniform(0.5, 2.0, dim * batch)
    cone = m.NonnegativeConeCpp(dim)
    out = np.full(dim * dim * batch, np.nan)
    cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    for b in sorted({0, batch - 1}) if batch else []:
        single = np.empty(dim * dim)
        cone.nt_scaling_matrix_into(s[b * dim:(b + 1) * dim], z[b * dim:(b + 1) * dim], single)
        np.testing.assert_array_equal(out[b * dim * dim:(b + 1) * dim * dim], single)


@pytest.mark.parametrize("method, args, message, reaches_device", check_cases(4))
def test_argument_checks(m, method, args, message, reaches_device):
    if reaches_device and m.has_cuda():
        pytest.skip("fake device arrays must not reach a real device")
    with pytest.raises(RuntimeError, match=f"^{message}$"):
        getattr(m.NonnegativeConeCpp(4), method)(*args)


THREADED = """
for n in (8192, 8193, 20000):
    x = rng.standard_normal(n)
    cone = m.NonnegativeConeCpp(n)
    out = np.empty(n)
    cone.project_into(x, out)
    y = np.ones(n)
    y[-1] = -1.0
    results.update({f"x{n}": x, f"project{n}": out, f"violation{n}": np.array([cone.violation(x)]),
                    f"contains{n}": np.array([cone.contains(y), cone.contains(out)])})
s, z = rng.uniform(0.5, 2, 3 * 2800), rng.uniform(0.5, 2, 3 * 2800)
results["batch"] = np.empty(9 * 2800)
m.NonnegativeConeCpp(3).nt_scaling_matrix_batch_into(s, z, results["batch"], 2800)
"""


def test_thread_count_independence(m, tmp_path):
    one, three = (run_with_threads(tmp_path, THREADED, t) for t in (1, 3))
    for key in one:
        if not key.startswith("violation"):
            np.testing.assert_array_equal(one[key], three[key], err_msg=key)
    for n in (8192, 8193, 20000):
        terms = np.where(one[f"x{n}"] < 0, one[f"x{n}"] ** 2, 0.0)
        assert one[f"violation{n}"][0] == math.sqrt(sequential_sum(terms))
        # Up to 8192 entries one thread sums in order; above, three partial
        # sums are combined in some order.
        allowed = {sequential_sum(terms)} if n <= 8192 else two_stage_sums(terms, 3)
        assert three[f"violation{n}"][0] in {math.sqrt(v) for v in allowed}
        assert one[f"contains{n}"].tolist() == [False, True]
