"""PsdConeCpp on host arrays: projection and violation against NumPy's
eigen-decomposition, the documented small cases, membership, unit vectors,
and every message in check order (fake device arrays for placement)."""
import numpy as np
import pytest

import fake_dlpack as fake

R2 = np.sqrt(2.0)
RUNTIME = "CUDA runtime is required for CUDA cone arrays"


def svec(a):
    rows, cols = np.tril_indices(a.shape[0])
    return np.where(rows == cols, 1.0, R2) * a[rows, cols]


def random_svec(rng, n):
    a = rng.standard_normal((n, n))
    return svec(a + a.T)


def smat(x, n):
    a = np.zeros((n, n))
    rows, cols = np.tril_indices(n)
    a[rows, cols] = np.where(rows == cols, 1.0, 1.0 / R2) * x
    return np.tril(a) + np.tril(a, -1).T


def eigh_projection(x, n):
    """(projection, distance) from NumPy's eigen-decomposition."""
    w, v = np.linalg.eigh(smat(x, n))
    return svec((v * np.maximum(w, 0.0)) @ v.T), np.sqrt(np.sum(np.minimum(w, 0.0) ** 2))


@pytest.mark.parametrize("dim, rows", [(1, 1), (2, 3), (3, 6), (10, 55)])
def test_dim_and_rows(m, dim, rows):
    cone = m.PsdConeCpp(dim)
    assert (cone.dim, cone.rows) == (dim, rows)


def test_dim_zero_is_refused(m):
    with pytest.raises(RuntimeError, match="^PSD cone dim must be positive$"):
        m.PsdConeCpp(0)


def test_only_the_basic_methods_are_registered(m):
    assert [k for k in vars(m.PsdConeCpp) if not k.startswith("_")] == [
        "dim", "rows", "project_into", "violation", "contains", "unit_vector",
        "unit_vector_array", "unit_vector_into"]


@pytest.mark.parametrize("n", [2, 3, 4, 7, 12, 25])
def test_projection_and_violation_match_eigh(m, rng, n):
    cone = m.PsdConeCpp(n)
    for _ in range(5):
        x = random_svec(rng, n)
        out = np.empty(cone.rows)
        cone.project_into(x, out)
        projection, distance = eigh_projection(x, n)
        assert out == pytest.approx(projection, abs=1e-11 * n)
        assert cone.violation(x) == pytest.approx(distance, rel=1e-11, abs=1e-12)
        assert cone.violation(out) < 1e-11 * n


@pytest.mark.parametrize("dim, x, projection, violation", [
    (1, [3.0], [3.0], 0.0),
    (1, [-2.0], [0.0], 2.0),
    (2, [2.0, 0.0, -3.0], [2.0, 0.0, 0.0], 3.0),
    (2, [1.0, R2 * 1e-13, -1.0], [1.0, 0.0, 0.0], 1.0),   # counts as diagonal
    (3, [-1.0, 0.0, 5.0, 0.0, 0.0, -0.5], [0.0, 0.0, 5.0, 0.0, 0.0, 0.0], np.hypot(1, 0.5)),
])
def test_documented_cases_are_exact(m, dim, x, projection, violation):
    cone = m.PsdConeCpp(dim)
    x = np.array(x)
    out = np.empty(cone.rows)
    cone.project_into(x, out)
    assert list(out) == projection and cone.violation(x) == violation


def test_indefinite_two_by_two(m):
    cone = m.PsdConeCpp(2)
    x = np.array([1.0, 2.0 * R2, 1.0])
    cone.project_into(x, x)      # in place
    assert x == pytest.approx([1.5, 1.5 * R2, 1.5], rel=1e-15)
    assert cone.violation(np.array([1.0, 2.0 * R2, 1.0])) == pytest.approx(1.0, rel=1e-15)


def test_nan_projects_through_one_by_one(m):
    out = np.empty(1)
    m.PsdConeCpp(1).project_into(np.array([np.nan]), out)
    assert np.isnan(out[0])


def test_membership_is_atol_at_least_violation(m):
    cone = m.PsdConeCpp(2)
    x = np.array([1.0, 2.0 * R2, 1.0])
    v = cone.violation(x)
    assert cone.contains(x, v) is True
    assert cone.contains(x, np.nextafter(v, 0.0)) is False
    assert cone.contains(x) is False and cone.contains(np.array([1.0, 0.0, 1.0]), 0) is True

    # The host never pivots on a NaN, and a NaN eigenvalue is not negative.
    assert cone.violation(np.array([np.nan, 0.0, 1.0])) == 0.0
    assert cone.violation(np.array([1.0, np.nan, -1.0])) == 1.0


@pytest.mark.parametrize("index, diagonal", [(0, True), (1, False), (4, False), (5, True)])
def test_unit_vectors_are_svec_coordinates(m, index, diagonal):
    cone = m.PsdConeCpp(3)
    out = np.full(6, 7.0)
    cone.unit_vector_into(index, out)
    expected = np.eye(6)[index]
    assert cone.unit_vector(index) == list(expected)
    assert np.array_equal(cone.unit_vector_array(index), expected) and np.array_equal(out, expected)
    matrix = m.psd_smat(expected, 3)
    assert np.max(matrix) == (1.0 if diagonal else 1.0 / R2)
    with pytest.raises(RuntimeError, match="^unit vector index out of range$"):
        cone.unit_vector(6)


def placement_cases(rows):
    ok = np.zeros(rows)
    return [
        ((np.zeros(rows + 1), fake.cuda(rows - 1)), f"input expected {rows} entries, got {rows + 1}"),
        ((ok, np.zeros(rows + 1)), f"output expected {rows} entries, got {rows + 1}"),
        ((fake.on_device(rows, fake.CUDA_HOST), np.zeros(1)), "input must be on CPU or CUDA"),
        ((fake.on_device(rows, fake.CUDA_MANAGED), ok), "input must be on CPU or CUDA"),
        ((ok, fake.on_device(rows, fake.CUDA_HOST)), "output must be on CPU or CUDA"),
        ((ok, fake.cuda(rows)), "input and output must live on the same device"),
        ((fake.cuda(rows), fake.cuda(rows, device_id=1)), "input and output must live on the same device"),
    ]


@pytest.mark.parametrize("case", range(7))
def test_projection_messages_in_check_order(m, case):
    (x, out), message = placement_cases(6)[case]
    keep = np.array(out.host if hasattr(out, "host") else out)
    with pytest.raises(RuntimeError) as err:
        m.PsdConeCpp(3).project_into(x, out)
    assert str(err.value) == message
    assert np.array_equal(out.host if hasattr(out, "host") else out, keep)


@pytest.mark.parametrize("dim", [1, 3, 4])
@pytest.mark.parametrize("call, what", [
    (lambda c, x: c.project_into(x, fake.cuda(c.rows)), "projection"),
    (lambda c, x: c.violation(x), "violation"),
    (lambda c, x: c.contains(x, 1.0), "membership"),
])
def test_device_arrays_need_the_runtime_then_dim_two(m, dim, call, what):
    # Never dim 2 here: a fake array must not reach a kernel on a GPU machine.
    cone = m.PsdConeCpp(dim)
    expected = f"CUDA PSD {what} currently supports dim=2" if m.has_cuda() else RUNTIME
    with pytest.raises(RuntimeError) as err:
        call(cone, fake.cuda(cone.rows))
    assert str(err.value) == expected


@pytest.mark.parametrize("method", ["violation", "contains"])
@pytest.mark.parametrize("x, message", [
    (np.zeros(4), "input expected 3 entries, got 4"),
    (fake.on_device(3, fake.CUDA_HOST), "input must be on CPU or CUDA"),
])
def test_scalar_messages(m, method, x, message):
    with pytest.raises(RuntimeError) as err:
        getattr(m.PsdConeCpp(2), method)(x)
    assert str(err.value) == message


def test_device_closed_forms_agree_with_the_host(m, rng):
    cone = m.PsdConeCpp(2)
    for x in rng.standard_normal((200, 3)) * 10.0 ** rng.integers(-3, 4, (200, 1)):
        projection, violation = m._psd2_closed_form(x)
        host = np.empty(3)
        cone.project_into(x, host)
        scale = np.max(np.abs(x))
        assert projection == pytest.approx(host, abs=1e-14 * scale)
        assert violation == pytest.approx(cone.violation(x), rel=1e-13, abs=1e-15 * scale)


@pytest.mark.parametrize("x, projection, violation", [
    ([-2.0, 0.0, -2.0], [0.0, 0.0, 0.0], np.hypot(2.0, 2.0)),
    ([3.0, 1e-15, 3.0], [3.0, 0.0, 3.0], 0.0),           # half-gap below 1e-14: 3 I
    ([-1.0, 0.0, 4.0], [0.0, 0.0, 4.0], 1.0),
])
def test_closed_form_edge_cases(m, x, projection, violation):
    p, v = m._psd2_closed_form(np.array(x))
    assert list(p) == projection and v == violation


def test_closed_form_lets_nan_through(m):
    p, v = m._psd2_closed_form(np.array([np.nan, 0.0, 1.0]))
    assert np.all(np.isnan(p[[0, 2]])) and np.isnan(v)
