"""Property fuzzing of the host operations: random lengths, misaligned
arrays, NaN, ±inf, ±0.0, huge and denormal values, inputs that alias the
output. A call raises the failure of its first bad argument in parameter
order (length, then alignment) or one of the operation's documented domain
messages, or returns; an argument failure writes nothing, a domain failure
writes nothing unless the operation documents partial writes, and read-only
inputs are never written. Interior points and random points check the
results: W s = z, batches made of the single forms, projections that land
in the cone and stay put.

DRAVIK_FUZZ=long (make fuzz) runs long and random, anything else a bounded
derandomised profile."""
import math
import os

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from samples import interior_blocks, soc_interior, spd, svec

from dravik.mirel.cones.cpp import _cpp_cuda as m

_QUIET = [HealthCheck.too_slow, HealthCheck.data_too_large]
settings.register_profile("bounded", max_examples=50, derandomize=True, database=None,
                          deadline=None, suppress_health_check=_QUIET)
settings.register_profile("long", max_examples=3000, deadline=None, suppress_health_check=_QUIET)
FUZZ = settings(settings.get_profile("long" if os.environ.get("DRAVIK_FUZZ") == "long"
                                     else "bounded"))
SPECIAL = [0.0, -0.0, math.nan, math.inf, -math.inf, 1e308, -1e308, 1e-308, 5e-324, 1e200,
           -1e154, 1.0, -1.0]
CLASSES = {"zero": ("ZeroConeCpp", [0, 1, 3]), "nonnegative": ("NonnegativeConeCpp", [0, 1, 4]),
           "second-order": ("SecondOrderConeCpp", [1, 2, 4]),
           "exponential": ("ExponentialConeCpp", [1, 2]), "psd": ("PsdConeCpp", [1, 2, 3])}
DOMAIN = {"zero": ["zero-cone NT scaling requires zero primal and dual vectors"],
          "nonnegative": ["nonnegative NT scaling requires strictly positive interior inputs"],
          "second-order": ["SOC NT scaling requires strictly interior cone vectors"],
          "exponential": ["exponential scaling requires strictly interior cone vectors",
                          "exponential scaling source vector must have nonzero finite norm"],
          "psd": ["PSD NT scaling requires strictly positive definite matrices",
                  "PSD NT scaling requires strictly positive definite inputs"]}
# Batches of these cones write the items before the failing one.
PARTIAL = {"second-order", "exponential", "psd"}


def interior(kind, rows, count, rng):
    """`count` points of the cone's interior, one after another."""
    if kind == "zero":
        return np.zeros(rows * count)
    if kind == "nonnegative":
        return rng.uniform(0.5, 2.0, rows * count)
    if kind == "second-order":
        return np.concatenate([soc_interior(rows, rng) for _ in range(count)] or [np.empty(0)])
    if kind == "exponential":
        return interior_blocks(rng, rows * count // 3)
    n = (math.isqrt(8 * rows + 1) - 1) // 2
    return np.concatenate([svec(spd(n, rng)) for _ in range(count)] or [np.empty(0)])


def operations(kind, rows):
    """(method, [(argument, kind, nominal length)]) of one cone; kinds:
    'in' read-only, 'out' written, or a scalar strategy."""
    batch, index = st.integers(0, 3), st.integers(0, rows + 1)
    pair = [("s", "in", rows), ("z", "in", rows)]
    batched = [("s", "in", "rb"), ("z", "in", "rb"), ("output", "out", "rrb"), ("batch", batch)]
    ops = [("project_into", [("input", "in", rows), ("output", "out", rows)]),
           ("violation", [("input", "in", rows)]),
           ("contains", [("input", "in", rows), ("atol", st.sampled_from(SPECIAL))]),
           ("unit_vector", [("index", index)]), ("unit_vector_array", [("index", index)]),
           ("unit_vector_into", [("index", index), ("output", "out", rows)]),
           ("nt_scaling_matrix", pair), ("nt_scaling_matrix_array", pair),
           ("nt_scaling_matrix_into", pair + [("output", "out", rows * rows)]),
           ("nt_scaling_matrix_batch_into", batched)]
    if kind in ("second-order", "psd"):
        ops += [("nt_scaling_matrix_batch_custom_into", batched),
                ("nt_scaling_matrix_batch_cublas_into", batched)]
    return ops


OPS = [pytest.param(kind, method, id=f"{kind}-{method}") for kind, (cls, sizes) in CLASSES.items()
       for method, _ in operations(kind, 1)]


def placed(values, misalign):
    """values in fresh memory `misalign` bytes past an 8-byte boundary."""
    base = np.frombuffer(bytearray(values.nbytes + 16), dtype=np.uint8)
    start = (-base.ctypes.data) % 8 + misalign
    array = base[start:start + values.nbytes].view(np.float64)
    array[:] = values
    return array


def expected_argument_failure(arrays, nominal):
    for name, array in arrays.items():
        if len(array) != nominal[name]:
            return f"{name} expected {nominal[name]} entries, got {len(array)}"
        if len(array) and array.ctypes.data % 8:
            return f"{name} must be 8-byte aligned"
    return None


@pytest.mark.parametrize("kind, method", OPS)
@FUZZ
@given(data=st.data())
def test_failures_are_the_documented_ones_and_write_nothing(kind, method, data):
    size = data.draw(st.sampled_from(CLASSES[kind][1]))
    cone = getattr(m, CLASSES[kind][0])(size)
    rows = cone.rows
    params = dict(operations(kind, rows))[method]
    scalars = {p[0]: data.draw(p[1], p[0]) for p in params if len(p) == 2}
    b = scalars.get("batch", 1)
    rng = np.random.default_rng(data.draw(st.integers(0, 2**32)))
    arrays, nominal = {}, {}
    for name, role, length in (p for p in params if len(p) == 3):
        nominal[name] = {"rb": rows * b, "rrb": rows * rows * b}.get(length, length)
        n = data.draw(st.sampled_from([nominal[name]] * 6 + [0, nominal[name] + 1,
                                                              max(nominal[name] - 1, 0)]))
        values = interior(kind, rows, b, rng) if n == rows * b and data.draw(st.booleans()) \
            else np.array(data.draw(st.lists(st.one_of(st.sampled_from(SPECIAL), st.floats()),
                                             min_size=n, max_size=n)), dtype=np.float64)
        arrays[name] = placed(values, data.draw(st.sampled_from([0] * 5 + [1, 4, 7])))
    aliased = method == "project_into" and len(arrays["input"]) == len(arrays["output"]) and \
        data.draw(st.booleans())
    if aliased:
        arrays["input"] = arrays["output"]
    before = {name: a.copy() for name, a in arrays.items()}
    argument_failure = expected_argument_failure(arrays, nominal)
    try:
        getattr(cone, method)(*[arrays[p[0]] if len(p) == 3 else scalars[p[0]] for p in params])
        error = None
    except RuntimeError as err:
        error = str(err)
    expected, scaling = argument_failure, "nt_scaling" in method
    if expected is None and scalars.get("index", -1) >= rows:
        expected = "unit vector index out of range"
    elif expected is None and "cublas" in method:
        expected = f"{'SOC' if kind == 'second-order' else 'PSD'} cuBLAS NT scaling requires " \
                   "CUDA arrays"
    elif expected is None and scaling and kind == "nonnegative":  # NaN passes
        expected = DOMAIN[kind][0] if (arrays["s"] <= 0).any() or (arrays["z"] <= 0).any() \
            else None
    elif expected is None and scaling and kind == "zero":
        norms = [math.sqrt(sum(float(v) * float(v) for v in arrays[n])) for n in "sz"]
        expected = DOMAIN[kind][0] if any(norm > 1e-10 for norm in norms) else None
    if expected is None and scaling and kind in PARTIAL:
        assert error is None or error in DOMAIN[kind]
    else:
        assert error == expected
    may_write = error is None or (scaling and kind in PARTIAL and not argument_failure and
                                  "cublas" not in method)
    for name, role, _ in (p for p in params if len(p) == 3):
        if not (aliased and name == "input") and (role == "in" or not may_write):
            assert arrays[name].tobytes() == before[name].tobytes(), name
    if aliased and error is None:  # in place: the values of a separate output
        out = np.full(rows, np.nan)
        cone.project_into(before["input"], out)
        np.testing.assert_array_equal(arrays["output"], out)


@pytest.mark.parametrize("kind", CLASSES)
@FUZZ
@given(size=st.integers(1, 4), scale=st.sampled_from([1e-3, 1.0, 1e3]), seed=st.integers(0, 2**32))
def test_interior_pairs_scale_s_onto_z_and_batches_are_their_items(kind, size, scale, seed):
    rng = np.random.default_rng(seed)
    scale = 1.0 if kind == "psd" else scale  # Jacobi's threshold is absolute (1e-12)
    cone = getattr(m, CLASSES[kind][0])(size if kind != "exponential" else size % 2 + 1)
    n = cone.rows
    s, z = scale * interior(kind, n, 2, rng), interior(kind, n, 2, rng) / scale
    out, custom = np.full(2 * n * n, np.nan), np.full(2 * n * n, np.nan)
    cone.nt_scaling_matrix_batch_into(s, z, out, 2)
    getattr(cone, "nt_scaling_matrix_batch_custom_into", cone.nt_scaling_matrix_batch_into)(
        s, z, custom, 2)
    np.testing.assert_array_equal(custom, out)  # on host arrays, the same batch
    for k in range(2):
        item = slice(k * n, k * n + n)
        single = np.full(n * n, np.nan)
        cone.nt_scaling_matrix_into(s[item], z[item], single)
        np.testing.assert_array_equal(out[k * n * n:(k + 1) * n * n], single)
        for h in (single.reshape(n, n), cone.nt_scaling_matrix_array(s[item], z[item])):
            bound = np.abs(h) @ np.abs(s[item]) + np.abs(z[item])
            assert (np.abs(h @ s[item] - z[item]) <= 1e-11 * bound).all()
        assert cone.contains(s[item], 0.0) and cone.violation(s[item]) <= 1e-13 * scale * n


@pytest.mark.parametrize("kind", CLASSES)
@FUZZ
@given(size=st.integers(1, 5), scale=st.sampled_from([1e-3, 1.0, 1e3]), seed=st.integers(0, 2**32))
def test_projections_land_in_the_cone_and_stay_there(kind, size, scale, seed):
    cone = getattr(m, CLASSES[kind][0])(size)
    x = scale * np.random.default_rng(seed).standard_normal(cone.rows)
    p, again = np.full(cone.rows, np.nan), np.full(cone.rows, np.nan)
    cone.project_into(x, p)
    cone.project_into(p, again)
    tol = max(1e-12 * max(scale, 1.0) * cone.rows, 1e-8 if kind == "exponential" else 0.0)
    assert cone.contains(p, tol) and cone.violation(p) <= tol
    np.testing.assert_allclose(again, p, rtol=0, atol=tol)
    if kind != "exponential":  # the others are Euclidean projections
        assert cone.violation(x) == pytest.approx(np.linalg.norm(x - p), rel=1e-10, abs=tol)
        assert cone.contains(x, 0.0) == (cone.violation(x) == 0.0)
