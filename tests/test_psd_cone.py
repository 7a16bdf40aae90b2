"""PsdConeCpp on host arrays: projection and violation against NumPy's
eigen-decomposition, the documented small cases, membership, unit vectors,
the 2 x 2 closed forms the device runs, and every message in check order
(fake device arrays for placement)."""
import numpy as np
import pytest

import fake_dlpack as fake

R2 = np.sqrt(2.0)


def svec(a):
    rows, cols = np.tril_indices(a.shape[0])
    return np.where(rows == cols, 1.0, R2) * a[rows, cols]


def eigh_projection(x, n):
    """(projection, distance) from NumPy's eigen-decomposition."""
    a = np.zeros((n, n))
    a[np.tril_indices(n)] = x * np.where(np.equal(*np.tril_indices(n)), 1.0, 1.0 / R2)
    w, v = np.linalg.eigh(a, UPLO="L")
    return svec((v * np.maximum(w, 0.0)) @ v.T), np.sqrt(np.sum(np.minimum(w, 0.0) ** 2))


def test_construction(m):
    assert [(m.PsdConeCpp(d).dim, m.PsdConeCpp(d).rows) for d in (1, 3, 10)] == [
        (1, 1), (3, 6), (10, 55)]
    with pytest.raises(RuntimeError, match="^PSD cone dim must be positive$"):
        m.PsdConeCpp(0)
    assert [k for k in vars(m.PsdConeCpp) if not k.startswith("_")] == [
        "dim", "rows", "project_into", "violation", "contains", "unit_vector",
        "unit_vector_array", "unit_vector_into"]


@pytest.mark.parametrize("n", [2, 3, 4, 7, 12, 25])
def test_projection_and_violation_match_eigh(m, rng, n):
    cone = m.PsdConeCpp(n)
    for _ in range(5):
        a = rng.standard_normal((n, n))
        x = svec(a + a.T)
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
    (2, [1.0, np.nan, -1.0], [1.0, 0.0, 0.0], 1.0),       # a NaN is never a pivot
    (3, [-1.0, 0.0, 5.0, 0.0, 0.0, -0.5], [0.0, 0.0, 5.0, 0.0, 0.0, 0.0], np.hypot(1, 0.5)),
])
def test_documented_cases_are_exact(m, dim, x, projection, violation):
    cone = m.PsdConeCpp(dim)
    x = np.array(x)
    out = np.empty(cone.rows)
    cone.project_into(x, out)
    assert list(out) == projection and cone.violation(x) == violation


def test_indefinite_two_by_two_in_place(m):
    cone = m.PsdConeCpp(2)
    x = np.array([1.0, 2.0 * R2, 1.0])
    assert cone.violation(x) == pytest.approx(1.0, rel=1e-15)
    cone.project_into(x, x)
    assert x == pytest.approx([1.5, 1.5 * R2, 1.5], rel=1e-15)


def test_membership_is_atol_at_least_violation(m):
    cone = m.PsdConeCpp(2)
    x = np.array([1.0, 2.0 * R2, 1.0])
    v = cone.violation(x)
    assert cone.contains(x, v) is True and cone.contains(x, np.nextafter(v, 0.0)) is False
    assert cone.contains(x) is False and cone.contains(np.array([1.0, 0.0, 1.0]), 0) is True
    assert cone.contains(np.array([np.nan, 0.0, 1.0]), 0.0) is True   # NaN is not negative


@pytest.mark.parametrize("index, diagonal", [(0, True), (1, False), (4, False), (5, True)])
def test_unit_vectors_are_svec_coordinates(m, index, diagonal):
    cone = m.PsdConeCpp(3)
    out = np.full(6, 7.0)
    cone.unit_vector_into(index, out)
    expected = np.eye(6)[index]
    assert cone.unit_vector(index) == list(expected)
    assert np.array_equal(cone.unit_vector_array(index), expected) and np.array_equal(out, expected)
    assert np.max(m.psd_smat(expected, 3)) == (1.0 if diagonal else 1.0 / R2)
    with pytest.raises(RuntimeError, match="^unit vector index out of range$"):
        cone.unit_vector(6)


@pytest.mark.parametrize("x, out, message", [
    (np.zeros(7), fake.cuda(5), "input expected 6 entries, got 7"),
    (fake.on_device(6, fake.CUDA_HOST), np.zeros(1), "input must be on CPU or CUDA"),
    (np.zeros(6), fake.on_device(6, fake.CUDA_MANAGED), "output must be on CPU or CUDA"),
    (np.zeros(6), fake.cuda(6), "input and output must live on the same device"),
    (fake.cuda(6), fake.cuda(6, device_id=1), "input and output must live on the same device"),
])
def test_projection_messages_in_check_order(m, x, out, message):
    with pytest.raises(RuntimeError) as err:
        m.PsdConeCpp(3).project_into(x, out)
    assert str(err.value) == message


@pytest.mark.parametrize("dim", [1, 3])
@pytest.mark.parametrize("call, what", [
    (lambda c, x: c.project_into(x, fake.cuda(c.rows)), "projection"),
    (lambda c, x: c.violation(x), "violation"),
    (lambda c, x: c.contains(x, 1.0), "membership"),
])
def test_device_arrays_need_the_runtime_then_dim_two(m, dim, call, what):
    # Never dim 2 here: a fake array must not reach a kernel on a GPU machine.
    cone = m.PsdConeCpp(dim)
    expected = (f"CUDA PSD {what} currently supports dim=2" if m.has_cuda()
                else "CUDA runtime is required for CUDA cone arrays")
    with pytest.raises(RuntimeError) as err:
        call(cone, fake.cuda(cone.rows))
    assert str(err.value) == expected


def test_closed_forms_of_the_device_agree_with_the_host(m, rng):
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
    ([np.nan, 0.0, 1.0], [np.nan, np.nan, np.nan], np.nan),
])
def test_closed_form_edge_cases(m, x, projection, violation):
    p, v = m._psd2_closed_form(np.array(x))
    assert np.array_equal(p, projection, equal_nan=True)
    assert np.array_equal(v, violation, equal_nan=True)
