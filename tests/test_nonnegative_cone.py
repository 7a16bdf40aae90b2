"""NonnegativeConeCpp on host arrays against NumPy, its argument checks with
fake device arrays, and its parallel loops at the 8192-entry threshold."""
import math

import numpy as np
import pytest
from cone_cases import check_cases, run_with_threads, sequential_sum, two_stage_sums

NOT_POSITIVE = "nonnegative NT scaling requires strictly positive interior inputs"


def clip_reference(x):
    return np.where(x > 0, x, 0.0)


def violation_reference(x):
    return math.sqrt(sequential_sum(np.where(x < 0, x * x, 0.0)))


def test_sizes(m):
    assert (m.NonnegativeConeCpp(0).dim, m.NonnegativeConeCpp(0).rows) == (0, 0)
    assert (m.NonnegativeConeCpp(dim=7).dim, m.NonnegativeConeCpp(7).rows) == (7, 7)
    with pytest.raises(TypeError):
        m.NonnegativeConeCpp(-1)


def test_project_edge_values(m):
    x = np.array([-1.0, 0.0, 2.0, np.nan, -0.0, np.inf, -np.inf])
    out = np.full(7, 9.0)
    m.NonnegativeConeCpp(7).project_into(x, out)
    assert out.tolist() == [0.0, 0.0, 2.0, 0.0, 0.0, np.inf, 0.0]
    assert not np.signbit(out).any()  # -0.0 and NaN become +0.0


@pytest.mark.parametrize("n", [0, 1, 8192, 8193, 30001])
@pytest.mark.parametrize("aliased", [False, True])
def test_project_matches_numpy(m, rng, n, aliased):
    x = rng.standard_normal(n)
    expected = clip_reference(x)
    out = x if aliased else np.empty(n)
    m.NonnegativeConeCpp(n).project_into(x, out, stream=0)
    np.testing.assert_array_equal(out, expected)


@pytest.mark.parametrize("values, expected", [
    ([-3.0, 4.0, -4.0], 5.0), ([1.0, 0.0, 2.0], 0.0), ([], 0.0), ([np.nan, -3.0], 3.0)])
def test_violation_values(m, values, expected):
    x = np.array(values, dtype=np.float64)
    assert m.NonnegativeConeCpp(len(values)).violation(x) == expected


@pytest.mark.parametrize("n", [1000, 8192])
def test_violation_single_thread_sum_is_exact(m, rng, n):
    x = rng.standard_normal(n)
    assert m.NonnegativeConeCpp(n).violation(x) == violation_reference(x)


@pytest.mark.parametrize("entry, atol, inside", [
    (-1e-8, 1e-8, True), (-2e-8, 1e-8, False), (np.nan, 1e-8, True), (0.0, -1.0, False),
    (-0.5, 0, False), (-0.5, 0.5, True)])
@pytest.mark.parametrize("n, where", [(5, 0), (5, 4), (8192, 8191), (9000, 8999), (9000, 0),
                                      (9000, 4500)])
def test_contains(m, n, where, entry, atol, inside):
    x = np.ones(n)
    x[where] = entry
    assert m.NonnegativeConeCpp(n).contains(x, atol=atol) is inside


def test_contains_default_tolerance_and_empty(m):
    cone = m.NonnegativeConeCpp(2)
    assert cone.contains(np.array([1.0, -1e-8]))
    assert not cone.contains(np.array([1.0, -1.1e-8]))
    assert m.NonnegativeConeCpp(0).contains(np.zeros(0))


def test_scaling_forms_agree(m, rng):
    n = 6
    s, z = rng.uniform(0.1, 3.0, n), rng.uniform(0.1, 3.0, n)
    cone = m.NonnegativeConeCpp(n)
    expected = np.diag(z / s)
    listed = cone.nt_scaling_matrix(s, z)
    assert isinstance(listed, list) and len(listed) == n * n
    np.testing.assert_array_equal(np.array(listed).reshape(n, n), expected)
    array = cone.nt_scaling_matrix_array(s, z)
    assert array.shape == (n, n)
    np.testing.assert_array_equal(array, expected)
    into = np.full(n * n, 7.0)
    cone.nt_scaling_matrix_into(s, z, into)
    np.testing.assert_array_equal(into.reshape(n, n), expected)
    np.testing.assert_allclose(expected @ s, z, rtol=1e-15)  # W s = z


def test_examples(m):
    cone = m.NonnegativeConeCpp(2)
    assert cone.nt_scaling_matrix(np.array([1.0, 2.0]), np.array([3.0, 4.0])) == [3, 0, 0, 2]
    out = np.full(8, 5.0)
    cone.nt_scaling_matrix_batch_into(np.array([1.0, 2, 4, 8]), np.ones(4), out, 2)
    assert out.tolist() == [1, 0, 0, 0.5, 0.25, 0, 0, 0.125]


def test_nan_passes_positivity(m):
    s = np.array([1.0, np.nan])
    z = np.array([2.0, 1.0])
    cone = m.NonnegativeConeCpp(2)
    for value in (cone.nt_scaling_matrix_array(s, z).ravel(), np.array(cone.nt_scaling_matrix(s, z))):
        assert value[0] == 2.0 and math.isnan(value[3]) and value[1] == value[2] == 0.0


@pytest.mark.parametrize("bad", [("s", 0.0), ("s", -1.0), ("z", 0.0), ("z", -0.0)])
@pytest.mark.parametrize("form", ["list", "array", "into", "batch"])
def test_non_positive_fails_and_leaves_output(m, bad, form):
    dim, batch = 3, 4
    s, z = np.ones(dim * batch), np.full(dim * batch, 2.0)
    {"s": s, "z": z}[bad[0]][-1] = bad[1]  # last entry of the last block
    cone = m.NonnegativeConeCpp(dim)
    out = np.full(dim * dim * batch, 3.0)
    with pytest.raises(RuntimeError, match=f"^{NOT_POSITIVE}$"):
        if form == "list":
            cone.nt_scaling_matrix(s[-dim:], z[-dim:])
        elif form == "array":
            cone.nt_scaling_matrix_array(s[-dim:], z[-dim:])
        elif form == "into":
            cone.nt_scaling_matrix_into(s[-dim:], z[-dim:], out[: dim * dim])
        else:
            cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    assert (out == 3.0).all()


@pytest.mark.parametrize("dim, batch", [(3, 5), (1, 8193), (100, 82), (4, 0)])
def test_batch_matches_single(m, rng, dim, batch):
    s = rng.uniform(0.5, 2.0, dim * batch)
    z = rng.uniform(0.5, 2.0, dim * batch)
    cone = m.NonnegativeConeCpp(dim)
    out = np.full(dim * dim * batch, np.nan)
    cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    blocks = out.reshape(batch, dim, dim)
    for b in sorted({0, batch - 1}) if batch else []:
        single = np.empty(dim * dim)
        cone.nt_scaling_matrix_into(s[b * dim:(b + 1) * dim], z[b * dim:(b + 1) * dim], single)
        np.testing.assert_array_equal(blocks[b].ravel(), single)
        np.testing.assert_array_equal(blocks[b], np.diag(z[b * dim:(b + 1) * dim] / s[b * dim:(b + 1) * dim]))


@pytest.mark.parametrize("label, method, args, message, needs_no_gpu",
                         check_cases(4), ids=lambda v: v if isinstance(v, str) else "")
def test_argument_checks(m, label, method, args, message, needs_no_gpu):
    if needs_no_gpu and m.has_cuda():
        pytest.skip("fake device arrays must not reach a real device")
    with pytest.raises(RuntimeError, match=f"^{message}$"):
        getattr(m.NonnegativeConeCpp(4), method)(*args)


def test_device_batch_skips_positivity(m):
    # The positivity test is the host's: device arrays go straight to dispatch.
    from fake_dlpack import cuda
    if m.has_cuda():
        pytest.skip("fake device arrays must not reach a real device")
    with pytest.raises(RuntimeError, match="^CUDA runtime is required"):
        m.NonnegativeConeCpp(2).nt_scaling_matrix_batch_into(cuda([-1.0, 0]), cuda(2), cuda(4), 1)


THREADED = """
for n in (8192, 8193, 20000):
    x = rng.standard_normal(n)
    cone = m.NonnegativeConeCpp(n)
    out = np.empty(n)
    cone.project_into(x, out)
    y = np.ones(n)
    y[-1] = -1.0
    results[f"x{n}"] = x
    results[f"project{n}"] = out
    results[f"violation{n}"] = np.array([cone.violation(x)])
    results[f"contains{n}"] = np.array([cone.contains(y), cone.contains(np.abs(x))])
cone = m.NonnegativeConeCpp(3)
s, z = rng.uniform(0.5, 2, 3 * 2800), rng.uniform(0.5, 2, 3 * 2800)
out = np.empty(9 * 2800)
cone.nt_scaling_matrix_batch_into(s, z, out, 2800)
results["batch"] = out
"""


def test_thread_count_independence(m, tmp_path):
    one = run_with_threads(tmp_path, THREADED, 1)
    three = run_with_threads(tmp_path, THREADED, 3)
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
    assert one["contains8193"].tolist() == [False, True]
