"""SecondOrderConeCpp on host arrays: projection, violation and membership
against NumPy, their edge cases, and the argument checks in order."""
import math

import numpy as np
import pytest

import fake_dlpack as fake


def sequential_sum(terms):
    total = 0.0
    for term in terms:
        total += term
    return total


def reference_projection(x):
    """The projection with the tail norm summed in index order, as one thread does."""
    t, r = x[0], math.sqrt(sequential_sum(float(v) * float(v) for v in x[1:]))
    if t >= r:
        return x.copy()
    if -t >= r:
        return np.zeros_like(x)
    a = (t + r) * 0.5
    out = x * (a / r if r > 0 else 0.0)
    out[0] = a
    return out


def assert_same_up_to_threads(actual, expected, dim):
    # Up to 8192 entries every sum runs on one thread in index order.
    if dim <= 8192:
        np.testing.assert_array_equal(actual, expected)
    else:
        np.testing.assert_allclose(actual, expected, rtol=1e-13, atol=1e-15)


def sample(kind, dim, rng):
    """A vector of the cone ('inside'), of its polar ('polar') or of neither."""
    x = rng.standard_normal(dim)
    r = np.linalg.norm(x[1:])
    x[0] = {"inside": 1.5 * r + 0.1, "polar": -1.5 * r - 0.1, "between": 0.3 * r}[kind]
    return x


@pytest.fixture(params=[2, 3, 17, 8192, 8193, 20000])
def dim(request):
    return request.param


def test_constructor_and_sizes(m):
    with pytest.raises(RuntimeError, match="^second-order cone dim must be positive$"):
        m.SecondOrderConeCpp(0)
    cone = m.SecondOrderConeCpp(7)
    assert (cone.dim, cone.rows) == (7, 7)


@pytest.mark.parametrize("kind", ["inside", "polar", "between"])
def test_projection_violation_membership_match_numpy(m, rng, dim, kind):
    cone = m.SecondOrderConeCpp(dim)
    x = sample(kind, dim, rng)
    out = np.full(dim, np.nan)
    cone.project_into(x, out)
    expected = reference_projection(x)
    assert_same_up_to_threads(out, expected, dim)
    residual = math.sqrt(sequential_sum(float(v) * float(v) for v in x - expected))
    assert_same_up_to_threads(cone.violation(x), residual, dim)
    assert cone.contains(x) == (kind == "inside")
    if kind == "inside":
        assert np.array_equal(out, x) and cone.violation(x) == 0.0
    cone.project_into(x, x)  # input and output may be one array
    assert np.array_equal(x, out)


def test_documented_points(m):
    cone = m.SecondOrderConeCpp(3)
    out = np.empty(3)
    cone.project_into(np.array([0.0, 3.0, 4.0]), out)
    assert out.tolist() == [2.5, 1.5, 2.0]
    boundary = np.array([5.0, 3.0, 4.0])
    cone.project_into(boundary, out)
    assert out.tolist() == boundary.tolist() and cone.violation(boundary) == 0.0
    anti = np.array([-5.0, 3.0, 4.0])
    cone.project_into(anti, out)
    assert out.tolist() == [0.0, 0.0, 0.0]
    assert cone.violation(anti) == pytest.approx(np.linalg.norm(anti), rel=1e-15)
    assert m.SecondOrderConeCpp(2).violation(np.array([0.0, 1.0])) == pytest.approx(np.sqrt(0.5))


@pytest.mark.parametrize("head,projected,violation,contained",
                         [(2.5, 2.5, 0.0, True), (0.0, 0.0, 0.0, True),
                          (-3.0, 0.0, 3.0, False), (-5e-9, 0.0, 5e-9, True)])
def test_dim_one(m, head, projected, violation, contained):
    cone = m.SecondOrderConeCpp(1)
    out = np.empty(1)
    cone.project_into(np.array([head]), out)
    assert out[0] == projected
    assert cone.violation(np.array([head])) == violation
    assert cone.contains(np.array([head])) is contained


@pytest.mark.parametrize("shortfall,atol,contained",
                         [(0.0, 0.0, True), (1e-12, 0.0, False), (5e-9, 1e-8, True),
                          (2e-8, 1e-8, False), (0.0, -1e-6, False)])
def test_contains_tolerance(m, shortfall, atol, contained):
    cone = m.SecondOrderConeCpp(3)
    x = np.array([5.0 - shortfall, 3.0, 4.0])
    assert cone.contains(x, atol=atol) is contained


@pytest.mark.parametrize("x,projected", [
    ([np.nan, 3.0, 4.0], [np.nan, np.nan, np.nan]),
    # A NaN tail norm fails both tests; the scale factor is then 0.
    ([1.0, np.nan, 2.0], [np.nan, np.nan, 0.0]),
])
def test_nan_inputs(m, x, projected):
    cone = m.SecondOrderConeCpp(3)
    x = np.array(x)
    out = np.empty(3)
    cone.project_into(x, out)
    np.testing.assert_array_equal(out, projected)
    assert np.isnan(cone.violation(x))
    assert cone.contains(x) is False


def test_unit_vectors(m):
    cone = m.SecondOrderConeCpp(4)
    assert cone.unit_vector(3) == [0.0, 0.0, 0.0, 1.0]
    with pytest.raises(RuntimeError, match="^unit vector index out of range$"):
        cone.unit_vector_array(4)


HOST = np.zeros(3)
SAME = "input and output must live on the same device"
RUNTIME = "CUDA runtime is required for CUDA cone arrays"


def skip_runtime_case_on_gpu(m, message):
    # Past the placement checks a fake device array would reach a kernel.
    if message == RUNTIME and m.has_cuda():
        pytest.skip("needs a machine without a usable CUDA device")


@pytest.mark.parametrize("args,message", [
    ((np.zeros(2), fake.on_device(2, fake.CUDA_HOST)), "input expected 3 entries, got 2"),
    ((fake.on_device(3, fake.CUDA_MANAGED), np.zeros(4)), "input must be on CPU or CUDA"),
    ((HOST, fake.on_device(4, fake.CUDA_HOST)), "output expected 3 entries, got 4"),
    ((HOST, fake.on_device(3, fake.CUDA_HOST)), "output must be on CPU or CUDA"),
    ((HOST, fake.cuda(3)), SAME),
    ((fake.cuda(3), np.zeros(3)), SAME),
    ((fake.cuda(3, device_id=0), fake.cuda(3, device_id=1)), SAME),
    ((fake.cuda(3), fake.cuda(3)), RUNTIME),
])
def test_project_into_checks_in_order(m, args, message):
    skip_runtime_case_on_gpu(m, message)
    with pytest.raises(RuntimeError, match=f"^{message}$"):
        m.SecondOrderConeCpp(3).project_into(*args)


@pytest.mark.parametrize("x,message", [
    (np.zeros(4), "input expected 3 entries, got 4"),
    (fake.on_device(4, fake.CUDA), "input expected 3 entries, got 4"),
    (fake.on_device(3, fake.CUDA_HOST), "input must be on CPU or CUDA"),
    (fake.cuda(3), RUNTIME),
])
def test_violation_and_contains_checks(m, x, message):
    skip_runtime_case_on_gpu(m, message)
    cone = m.SecondOrderConeCpp(3)
    for call in (cone.violation, cone.contains):
        with pytest.raises(RuntimeError, match=f"^{message}$"):
            call(x)
