"""Property fuzzing of every host operation of every cone and of the svec
packing functions: random lengths (0 and wrong ones often), misaligned
arrays, NaN, ±inf, ±0.0, 1e±308 and denormals, huge counts, and inputs that
alias the output. Each call must raise exactly the first failure of the
check order (sizes, then views in parameter order, then the domain checks)
or succeed; a raise leaves the outputs byte for byte as they were (except
where an operation documents partial writes), and no read-only input is
ever written.

The example count comes from a Hypothesis profile: DRAVIK_FUZZ=long (make
fuzz) runs long and random, anything else a bounded derandomised run."""
import math
import os
from dataclasses import dataclass

import numpy as np
import pytest
from hypothesis import HealthCheck, event, given, settings
from hypothesis import strategies as st

from dravik.mirel.cones.cpp import _cpp_cuda

_QUIET = [HealthCheck.too_slow, HealthCheck.data_too_large]
settings.register_profile("bounded", max_examples=50, derandomize=True, database=None,
                          deadline=None, suppress_health_check=_QUIET)
settings.register_profile("long", max_examples=3000, deadline=None, suppress_health_check=_QUIET)
FUZZ = settings(settings.get_profile("long" if os.environ.get("DRAVIK_FUZZ") == "long"
                                     else "bounded"))

U64 = 2**64
RO, W, IDX = "read-only vector", "writable vector", "index vector"
SPECIAL = [0.0, -0.0, math.nan, math.inf, -math.inf, 1e308, -1e308, 1e-308, -1e-308, 5e-324,
           -5e-324, 2.2250738585072014e-308, 1e200, -1e154, 1.0, -1.0]

# One strategy per argument kind; vectors take (cone, rows, length).
_element = st.one_of(st.sampled_from(SPECIAL), st.floats())
SCALARS = {
    "index": lambda rows: st.one_of(st.integers(0, (rows or 0) + 1), st.just(U64 - 1)),
    "batch": lambda rows: st.one_of(st.integers(0, 3), st.sampled_from([2**31, 2**62, U64 - 1])),
    "atol": lambda rows: _element,
    "stream": lambda rows: st.integers(0, U64 - 1),
    "dim": lambda rows: st.one_of(st.integers(0, 4), st.sampled_from([2**32, 2**63])),
    "row_offset": lambda rows: st.one_of(st.integers(0, 8), st.just(U64 - 1)),  # sparse fills
}


def _interior(cone, rows, n, seed):
    """A point well inside the cone, item after item, when n holds whole items."""
    rng = np.random.default_rng(seed)
    if cone == "zero":
        return np.zeros(n)
    if cone == "nonnegative":
        return rng.uniform(0.5, 2.0, n)
    if not rows or n % rows:
        return rng.standard_normal(n)
    items = rng.standard_normal((n // rows, rows))
    if cone == "second-order":
        items[:, 0] = np.sqrt((items[:, 1:] ** 2).sum(axis=1)) + 1.0
    elif cone == "exponential":
        blocks = items.reshape(-1, 3)
        blocks[:, 1] = rng.uniform(0.5, 2.0, len(blocks))
        blocks[:, 2] = blocks[:, 1] * np.exp(blocks[:, 0] / blocks[:, 1]) + 1.0
    return items.ravel()


@st.composite
def vector_values(draw, cone, rows, n):
    if draw(st.booleans()):
        values = np.array(draw(st.lists(_element, min_size=n, max_size=n)), dtype=np.float64)
    else:
        values = _interior(cone, rows, n, draw(st.integers(0, 2**32)))
    if n and draw(st.booleans()):
        values[draw(st.integers(0, n - 1))] = draw(st.sampled_from(SPECIAL))
    return values


VECTORS = {
    RO: vector_values, W: vector_values,
    # For the sparse Hessian fills' indptr, indices, row_indices, col_indices.
    IDX: lambda cone, rows, n: st.lists(st.one_of(st.integers(-2, 40), st.just(2**63 - 1)),
                                        min_size=n, max_size=n).map(
        lambda v: np.array(v, dtype=np.int64)),
}


def placed(values, misalign, writable):
    """values in fresh memory `misalign` bytes past an 8-byte boundary."""
    raw = bytearray(values.nbytes + 16)
    base = np.frombuffer(raw, dtype=np.uint8)
    start = (-base.ctypes.data) % 8 + misalign
    array = base[start:start + values.nbytes].view(values.dtype)
    array[:] = values
    array.flags.writeable = writable
    return array


# ---- what each operation must do: its size and view checks in order, then its domain


def view_failure(name, expected, array):
    if len(array) != expected:
        return RuntimeError, f"{name} expected {expected} entries, got {len(array)}"
    if len(array) and array.ctypes.data % 8:
        return RuntimeError, f"{name} must be 8-byte aligned"
    return None


def nt_batch_steps(rows, sc):
    batch = sc.get("batch", 1)
    too_large = "NT scaling batch too large: {} overflows".format
    if rows * batch >= U64:
        return [(ValueError, too_large("rows * batch"))]
    steps = [("s", rows * batch), ("z", rows * batch)]
    if rows * rows * batch >= U64:
        return steps + [(ValueError, too_large("rows * rows * batch"))]
    return steps + [("output", rows * rows * batch)]


def packing_steps(packed_from, packed_to):
    def steps(rows, sc):
        n = sc["dim"]
        if n * n >= U64:
            return [(ValueError, "PSD matrix order too large: dim * dim overflows")]
        sizes = {"matrix": n * n, "svec": n * (n + 1) // 2}
        return [(packed_from, sizes[packed_from])] + (
            [("output", sizes[packed_to])] if packed_to else [])
    return steps


@dataclass
class Expect:
    """A domain outcome: `must` raise (or may), and how many leading entries
    of `output` a failing call may already have written (None: all)."""
    exc: type = None
    message: str = None
    must: bool = True
    written: int = 0


def _seq_norm(x):
    total = 0.0
    for v in x:
        total += float(v) * float(v)
    return math.sqrt(total)


def _soc_interior(v):
    return v[0] > 0.0 if len(v) == 1 else float(v[0]) > _seq_norm(v[1:])


def _exp_interior(b):
    x, y, z = map(float, b)
    if not y > 0.0:
        return False
    ratio = x / y
    ratio = -745.0 if ratio < -745.0 else 709.0 if ratio > 709.0 else ratio
    return z > y * math.exp(ratio)


def _items(v, rows):
    return [v[i:i + rows] for i in range(0, len(v), rows)]


def nt_domain(cone, rows, form, s, z):
    """The NT scaling domain checks of the host path for s and z (all items)."""
    fail = RuntimeError
    if cone == "zero":
        if _seq_norm(s) > 1e-10 or _seq_norm(z) > 1e-10:
            return Expect(fail, "zero-cone NT scaling requires zero primal and dual vectors")
    elif cone == "nonnegative":
        if (s <= 0).any() or (z <= 0).any():
            return Expect(fail, "nonnegative NT scaling requires strictly positive interior inputs")
    elif cone == "second-order":
        message = "SOC NT scaling requires strictly interior cone vectors"
        if form == "cublas":
            return Expect(fail, "SOC cuBLAS NT scaling requires CUDA arrays")
        for b, (sb, zb) in enumerate(zip(_items(s, rows), _items(z, rows))):
            if not (_soc_interior(sb) and _soc_interior(zb)):
                return Expect(fail, message, written=b * rows * rows)
        # Interior pairs can still fail on the intermediate point (rounding).
        return Expect(fail, message, must=False, written=None)
    elif cone == "exponential":
        interior = "exponential scaling requires strictly interior cone vectors"
        for sk, zk in zip(_items(s, 3), _items(z, 3)):
            if not (_exp_interior(sk) and _exp_interior(zk)):
                return Expect(fail, interior, written=None)
            a, b, c = map(float, sk)
            q = a * a + b * b + c * c
            if form == "dense" and not (q > 0.0 and abs(q) <= np.finfo(float).max):
                return Expect(fail, "exponential scaling source vector must have nonzero "
                              "finite norm")
    return None


def nt_form(form):
    return lambda cone, rows, sc, a: nt_domain(cone, rows, form, a["s"], a["z"])


def unit_index(cone, rows, sc, a):
    if sc["index"] >= rows:
        return Expect(RuntimeError, "unit vector index out of range")
    return None


@dataclass
class Op:
    cone: str            # key of CONES, or "packing" for the module functions
    method: str
    params: tuple        # (name, kind), in parameter order
    steps: object        # (rows, scalars) -> [(array name, length) | (exception, message)]
    domain: object = None  # (cone, rows, scalars, arrays) -> Expect or None
    partial: str = None  # the domain failure that may come after writes to the output
    alias_safe: str = None  # "same": input may be the output; "any": any overlap


IN_OUT = (("input", RO), ("output", W), ("stream", "stream"))
PAIR = (("s", RO), ("z", RO))
BATCH = PAIR + (("output", W), ("batch", "batch"), ("stream", "stream"))
INTO = PAIR + (("output", W), ("stream", "stream"))


def cone_ops(cone):
    # The host batch loops of these cones write items before testing later ones.
    partial_nt = {"second-order": "SOC NT scaling requires strictly interior cone vectors",
                  "exponential": "exponential scaling requires strictly interior cone vectors",
                  }.get(cone)
    rows_only = lambda name: lambda rows, sc: [(name, rows)]  # noqa: E731
    ops = [Op(cone, "project_into", IN_OUT, lambda r, sc: [("input", r), ("output", r)],
              alias_safe="same"),
           Op(cone, "violation", (("input", RO),), rows_only("input")),
           Op(cone, "contains", (("input", RO), ("atol", "atol")), rows_only("input")),
           Op(cone, "unit_vector", (("index", "index"),), lambda r, sc: [], unit_index),
           Op(cone, "unit_vector_array", (("index", "index"),), lambda r, sc: [], unit_index),
           Op(cone, "unit_vector_into", (("index", "index"), ("output", W)), rows_only("output"),
              unit_index)]
    if cone == "psd":  # its NT scaling is not fuzzed yet
        return ops
    ops += [Op(cone, "nt_scaling_matrix", PAIR, lambda r, sc: [("s", r), ("z", r)],
               nt_form("dense")),
            Op(cone, "nt_scaling_matrix_array", PAIR, lambda r, sc: [("s", r), ("z", r)],
               nt_form("dense")),
            Op(cone, "nt_scaling_matrix_into", INTO, nt_batch_steps, nt_form("batch"),
               partial_nt),
            Op(cone, "nt_scaling_matrix_batch_into", BATCH, nt_batch_steps, nt_form("batch"),
               partial_nt)]
    if cone == "second-order":
        ops += [Op(cone, "nt_scaling_matrix_batch_custom_into", BATCH, nt_batch_steps,
                   nt_form("batch"), partial_nt),
                Op(cone, "nt_scaling_matrix_batch_cublas_into", BATCH, nt_batch_steps,
                   nt_form("cublas")),
                Op(cone, "nt_scaling_matrix_default_method", (("batch", "batch"),),
                   lambda r, sc: [])]
    return ops


# Cone classes and the sizes drawn for them (dim, or blocks).
CONES = {"zero": ("ZeroConeCpp", [0, 1, 3]), "nonnegative": ("NonnegativeConeCpp", [0, 1, 4]),
         "second-order": ("SecondOrderConeCpp", [1, 2, 4]),
         "exponential": ("ExponentialConeCpp", [1, 2]), "psd": ("PsdConeCpp", [1, 2, 3])}
OPS = [op for cone in CONES for op in cone_ops(cone)] + [
    Op("packing", "psd_svec", (("matrix", RO), ("dim", "dim")), packing_steps("matrix", None)),
    Op("packing", "psd_smat", (("svec", RO), ("dim", "dim")), packing_steps("svec", None)),
    Op("packing", "psd_svec_into", (("matrix", RO), ("output", W), ("dim", "dim"),
                                    ("stream", "stream")), packing_steps("matrix", "svec"),
       alias_safe="any"),
    Op("packing", "psd_smat_into", (("svec", RO), ("output", W), ("dim", "dim"),
                                    ("stream", "stream")), packing_steps("svec", "matrix"),
       alias_safe="any"),
]
# Host operations that exist but have no row above yet. The sparse Hessian
# fills (hmatrix_csr_values_into, hmatrix_coo_values_into: s, z RO; indptr /
# row_indices, indices / col_indices IDX; values W; row_offset, stream) and
# the PSD NT scaling get rows when they land.
NOT_YET = {"hmatrix_csr_values_into", "hmatrix_coo_values_into"} | {
    f"PsdConeCpp.{name}" for name in ("nt_scaling_matrix", "nt_scaling_matrix_array",
                                      "nt_scaling_matrix_into", "nt_scaling_matrix_batch_into",
                                      "nt_scaling_matrix_default_method",
                                      "nt_scaling_matrix_batch_custom_into",
                                      "nt_scaling_matrix_batch_cublas_into")}


def call(op, size, args):
    target = _cpp_cuda if op.cone == "packing" else getattr(_cpp_cuda, CONES[op.cone][0])(size)
    return getattr(target, op.method)(*args)


def outcome(op, size, args):
    try:
        return call(op, size, args), None
    except (RuntimeError, ValueError, TypeError, MemoryError) as err:
        return None, err


def expected_outcome(op, rows, scalars, steps, arrays, aliased):
    """The first failing size or view check, else the domain's verdict."""
    for step in steps:
        if not isinstance(step[0], str):
            return Expect(*step)
        failure = view_failure(step[0], step[1], arrays[step[0]])
        if failure:
            return Expect(*failure)
    if aliased and op.partial:  # the inputs change under the writes
        return Expect(RuntimeError, op.partial, must=False, written=None)
    return op.domain(op.cone, rows, scalars, arrays) if op.domain else None


def test_every_host_operation_is_fuzzed():
    fuzzed = {(op.cone, op.method) for op in OPS}
    missing = []
    for cone, (cls, _) in CONES.items():
        for name in dir(getattr(_cpp_cuda, cls)):
            if not name.startswith("_") and name not in ("dim", "rows") and \
                    (cone, name) not in fuzzed and not {name, f"{cls}.{name}"} & NOT_YET:
                missing.append(f"{cls}.{name}")
    missing += [name for name in ("psd_svec", "psd_smat", "psd_svec_into", "psd_smat_into")
                if ("packing", name) not in fuzzed]
    assert not missing


@pytest.mark.parametrize("op", OPS, ids=[f"{op.cone}-{op.method}" for op in OPS])
@FUZZ
@given(data=st.data())
def test_host_operation(op, data):
    size = data.draw(st.sampled_from(CONES[op.cone][1] if op.cone in CONES else [0]), "size")
    rows = None if op.cone == "packing" else getattr(_cpp_cuda, CONES[op.cone][0])(size).rows
    scalars = {name: data.draw(SCALARS[kind](rows), name)
               for name, kind in op.params if kind in SCALARS}
    steps = op.steps(rows, scalars)
    nominal = {step[0]: step[1] for step in steps if isinstance(step[0], str)}
    exact = data.draw(st.booleans(), "exact lengths")

    # The output is made first, so that inputs can alias it.
    arrays, readonly = {}, {}
    output_name = next((name for name, kind in op.params if kind == W), None)
    for name, kind in sorted((p for p in op.params if p[1] not in SCALARS),
                             key=lambda p: p[1] != W):
        n = nominal.get(name)
        n = None if n is not None and n > 64 else n  # huge counts: only wrong lengths
        if n is None or not exact:
            around = 3 if n is None else n + 2
            n = data.draw(st.one_of(st.just(n), st.integers(0, around)) if n is not None
                          else st.integers(0, around), f"{name} length")
        values = data.draw(VECTORS[kind](op.cone, rows, n), f"{name} values")
        misalign = data.draw(st.one_of(st.just(0), st.just(0), st.integers(1, 7)),
                             f"{name} misalignment")
        out = arrays.get(output_name)
        fits = out is not None and (len(out) == n if op.alias_safe == "same" else len(out) >= n)
        if kind == RO and fits and data.draw(st.integers(0, 3), f"{name} aliases output") == 0:
            offset = 0 if op.alias_safe == "same" else data.draw(
                st.integers(0, len(out) - n), f"{name} offset")
            arrays[name] = out[offset:offset + n]
            continue
        arrays[name] = placed(values, misalign, writable=kind == W)
        if kind != W:
            readonly[name] = arrays[name]
    args = [scalars[name] if kind in SCALARS else arrays[name] for name, kind in op.params]
    aliased = set(arrays) - set(readonly) - {output_name}

    expected = expected_outcome(op, rows, scalars, steps, arrays, aliased)

    before = {name: a.tobytes() for name, a in arrays.items()}
    _, err = outcome(op, size, args)
    # Shown by --hypothesis-show-statistics: how often each outcome came up.
    event("returned" if err is None else f"{type(err).__name__}: {str(err).split(' expected')[0]}")
    if err is None:
        assert expected is None or not expected.must, expected
    else:
        assert expected is not None and (type(err), str(err)) == (expected.exc, expected.message)
        out = arrays.get(output_name)
        if out is not None and expected.written is not None:
            assert out[expected.written:].tobytes() == before[output_name][8 * expected.written:]
    for name, array in readonly.items():
        assert array.tobytes() == before[name], f"read-only {name} was written"

    if aliased and op.alias_safe and err is None:
        # The same call on separate copies writes the same values.
        fresh = [placed(np.frombuffer(before[name], dtype=arrays[name].dtype), 0, True)
                 if kind not in SCALARS else scalars[name] for name, kind in op.params]
        _, fresh_err = outcome(op, size, fresh)
        assert fresh_err is None
        fresh_out = fresh[[name for name, _ in op.params].index(output_name)]
        np.testing.assert_array_equal(arrays[output_name], fresh_out)
