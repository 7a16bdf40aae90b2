"""Property fuzzing of every host operation of every cone and of the svec
packing functions: random lengths (0 and wrong ones often), misaligned
arrays, NaN, ±inf, ±0.0, 1e±308 and denormals, huge counts, and inputs that
alias the output. Each call must raise exactly the first failure of the
check order (sizes, then views in parameter order, then the domain checks)
or succeed; a raise leaves the outputs byte for byte as they were (except
where an operation documents partial writes), and no read-only input is
ever written.

The PSD NT scaling and the sparse Hessian fills also get arrays that claim
to live on CUDA or on refused DLPack devices (placement and same-device
rules), and the fills get malformed CSR and COO patterns: their outputs are
predicted entry by entry, including the writes kept before an index error.

The example count comes from a Hypothesis profile: DRAVIK_FUZZ=long (make
fuzz) runs long and random, anything else a bounded derandomised run."""
import itertools
import math
import os
from dataclasses import dataclass

import numpy as np
import pytest
from cone_cases import RUNTIME, SAME_IN, SAME_OUT
from fake_dlpack import CUDA, CUDA_HOST, CUDA_MANAGED, FakeDeviceArray
from hypothesis import HealthCheck, event, given, reject, settings
from hypothesis import strategies as st
from samples import documented_jacobi, svec

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
    # Sparse fills: mostly small offsets, else blocks that end at or beyond
    # the int64 range.
    "row_offset": lambda rows: st.sampled_from([*range(9)] * 2 + [2**63 - 1, 2**63, U64 - 1]),
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
    elif cone == "psd":  # svec of G G^T + n I
        n = psd_order(rows)
        items = np.array([svec(g @ g.T + n * np.eye(n))
                          for g in rng.standard_normal((len(items), n, n))])
    return items.ravel()


def psd_order(rows):
    return (math.isqrt(8 * rows + 1) - 1) // 2


@st.composite
def vector_values(draw, cone, rows, n):
    if draw(st.booleans()):
        values = np.array(draw(st.lists(_element, min_size=n, max_size=n)), dtype=np.float64)
    else:
        values = _interior(cone, rows, n, draw(st.integers(0, 2**32)))
    if n and draw(st.booleans()):
        values[draw(st.integers(0, n - 1))] = draw(st.sampled_from(SPECIAL))
    return values


# Index vectors (the sparse fills' indptr, indices, row_indices, col_indices)
# are drawn together with the fill's other arrays: see fill_arrays.
VECTORS = {RO: vector_values, W: vector_values}

# Where an array claims to live (DLPack device type and ordinal): operations
# fuzzed with placement get fake device arrays over their host memory.
HOST = (1, 0)
DEVICES = [HOST, (CUDA, 0), (CUDA, 1), (CUDA_HOST, 0), (CUDA_MANAGED, 0)]
HAS_CUDA = _cpp_cuda.has_cuda()  # then fake CUDA arrays must never reach the device


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


def view_failure(name, expected, array, device=HOST):
    """The view of one argument: its length (None: not checked, as for index
    vectors), its device type, its alignment."""
    if expected is not None and len(array) != expected:
        return RuntimeError, f"{name} expected {expected} entries, got {len(array)}"
    if device[0] not in (1, CUDA):
        return RuntimeError, f"{name} must be on CPU or CUDA"
    if len(array) and array.ctypes.data % 8:
        return RuntimeError, f"{name} must be 8-byte aligned"
    return None


# Checks after the views, as steps: (arrays, devices) -> failure or None.
def same_device(a, b, message):
    return lambda arrays, devices: (RuntimeError, message) if devices[a] != devices[b] else None


def dispatch_on(name):
    """The device path, taken on the named view; this machine has no usable runtime."""
    return lambda arrays, devices: (RuntimeError, RUNTIME) if devices[name][0] == CUDA else None


def host_only(name):
    return lambda arrays, devices: ((RuntimeError, f"{name} must be a CPU vector for dense NT "
                                     "scaling") if devices[name][0] == CUDA else None)


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
    of `output` a failing call may already have written (None: all). With
    `after` = (values, known), the output afterwards is predicted entry by
    entry instead (where `known`), whether the call raises or not (exc None:
    it must return)."""
    exc: type = None
    message: str = None
    must: bool = True
    written: int = 0
    after: tuple = None


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


# ---- PSD NT scaling: the general path (every n in the single forms, n >= 3
# in the batches) and the closed forms of the batches for n = 1 and n = 2

PSD_MATRICES = "PSD NT scaling requires strictly positive definite matrices"
PSD_INPUTS = "PSD NT scaling requires strictly positive definite inputs"
SQRT2 = 1.4142135623730951


def _ieee_div(a, b):
    """a / b as C divides (a zero b gives ±inf or NaN)."""
    with np.errstate(all="ignore"):
        return float(np.float64(a) / np.float64(b))


def _psd_power(a, p):
    """A^p from the Jacobi eigenpairs, or None when an eigenvalue is <= 0."""
    values, v = documented_jacobi(a)
    n = len(a)
    out = [[0.0] * n for _ in range(n)]
    for k in range(n):
        if values[k] <= 0:
            return None
        mu = math.pow(float(values[k]), p)
        for i in range(n):
            for j in range(n):
                out[i][j] = (float(v[i][k]) * mu) * float(v[j][k]) + out[i][j]
    return out


def _matmul(a, b):
    n = len(a)
    c = [[0.0] * n for _ in range(n)]
    for i, k, j in itertools.product(range(n), repeat=3):
        c[i][j] = b[k][j] * a[i][k] + c[i][j]
    return c


def _smat(x, n):
    m, k = [[0.0] * n for _ in range(n)], 0
    for j in range(n):
        for i in range(j + 1):
            m[j][i] = m[i][j] = float(x[k]) if i == j else float(x[k]) / SQRT2
            k += 1
    return m


def psd_general_passes(s, z, n):
    """Whether the general path gets through S^1/2 and (S^1/2 Z S^1/2)^1/2:
    True, False, or None where the Python model cannot say."""
    try:
        half = _psd_power(_smat(s, n), 0.5)
        if half is None:
            return False
        return _psd_power(_matmul(_matmul(half, _smat(z, n)), half), 0.5) is not None
    except (ArithmeticError, ValueError):
        return None


def _psd2_power(a, b, c, p):
    m = (a + c) * 0.5
    r = math.sqrt((0.25 * (a - c)) * (a - c) + b * b)
    up, lo = m + r, m - r
    if up <= 0 or lo <= 0:
        return None
    pu, pl = math.pow(up, p), math.pow(lo, p)
    if r <= 1e-14:
        return pu, 0.0, pu
    alpha, beta = _ieee_div(pu - pl, up - lo), _ieee_div(up * pl - lo * pu, up - lo)
    return a * alpha + beta, b * alpha, c * alpha + beta


def psd2_passes(s, z):
    """Whether the n = 2 closed form gets through P = S^1/2 and M^1/2."""
    try:
        s0, s1, s2 = map(float, s)
        z0, z1, z2 = map(float, z)
        p = _psd2_power(s0, s1 / SQRT2, s2, 0.5)
        if p is None:
            return False
        pa, pb, pc = p
        zb = z1 / SQRT2
        y00, y10, y01, y11 = z0 * pa + zb * pb, zb * pa + z2 * pb, z0 * pb + zb * pc, \
            z2 * pc + zb * pb
        m01 = ((pb * y00 + pc * y10) + (y01 * pa + y11 * pb)) * 0.5
        return _psd2_power(pa * y00 + pb * y10, m01, pc * y11 + pb * y01, 0.5) is not None
    except (ArithmeticError, ValueError):
        return None


def psd_dense_domain(cone, rows, sc, a):
    passes = psd_general_passes(a["s"], a["z"], psd_order(rows))
    return None if passes else Expect(RuntimeError, PSD_MATRICES, must=passes is False)


def psd_batch_domain(form):
    def domain(cone, rows, sc, a):
        if form == "cublas":
            return Expect(RuntimeError, "PSD cuBLAS NT scaling requires CUDA arrays")
        n, batch, s, z = psd_order(rows), sc.get("batch", 1), a["s"], a["z"]
        if n == 1:  # every entry is cleared first, then written block by block
            for b in range(batch):
                if s[b] <= 0 or z[b] <= 0:
                    after = np.zeros(batch)
                    with np.errstate(all="ignore"):
                        after[:b] = z[:b] / s[:b]
                    return Expect(RuntimeError, PSD_INPUTS, after=(after, np.ones(batch, bool)))
            return None
        message = PSD_INPUTS if n == 2 else PSD_MATRICES
        for b, (sb, zb) in enumerate(zip(_items(s, rows), _items(z, rows))):
            passes = psd2_passes(sb, zb) if n == 2 else psd_general_passes(sb, zb, n)
            if passes is None:
                return Expect(RuntimeError, message, must=False, written=None)
            if not passes:  # the blocks before it are written, the others stay
                return Expect(RuntimeError, message, written=b * rows * rows)
        return None
    return domain


# ---- sparse Hessian fills: the argument checks, the cone's preparation, then
# the CSR walk over the cone's rows or the COO walk over every entry

FILL_INDICES = {"csr": ("indptr", "indices"), "coo": ("row_indices", "col_indices")}
FILL_PREPARATION = {
    "zero": "zero-cone sparse H fill requires zero primal and dual inputs",
    "nonnegative": "nonnegative sparse H fill requires strictly positive inputs",
    "second-order": "SOC sparse H fill requires strictly interior cone vectors",
    "exponential": "exponential sparse H fill requires strictly interior inputs",
    "psd": PSD_MATRICES,
}
INT64_MAX = 2**63 - 1


def fill_steps(layout):
    first, second = FILL_INDICES[layout]

    def values_view(arrays, devices):  # as long as indices (CSR) or row_indices (COO)
        counted = arrays[second if layout == "csr" else first]
        return view_failure("values", len(counted), arrays["values"], devices["values"])

    def coo_lengths(arrays, devices):
        n, m = len(arrays[first]), len(arrays[second])
        return None if n == m else (RuntimeError, f"COO col_indices expected {n} entries, got {m}")

    def steps(rows, sc):
        return [("s", rows), ("z", rows), (first, None), (second, None), values_view] + (
            [coo_lengths] if layout == "coo" else []) + [
            same_device("s", "z", SAME_IN), same_device("s", "values", SAME_OUT),
            same_device(first, "s", "first sparse index must live on the same device as the "
                        "cone vectors"),
            same_device(second, "s", "second sparse index must live on the same device as the "
                        "cone vectors"),
            dispatch_on("s")]
    return steps


def _exp_fill_admissible(b):
    """The fill's own test: exp of the raw ratio, and the ray y = 0, x < 0, z >= 0."""
    x, y, z = map(float, b)
    if y > 0.0:
        try:
            e = math.exp(x / y)
        except OverflowError:
            e = math.inf
        return z > y * e
    return y == 0.0 and x < 0.0 and z >= 0.0


def _rank_two_block(a, b):
    """The 3 x 3 map taking a onto b, each entry grouped as the module groups it."""
    with np.errstate(all="ignore"):
        a = [np.float64(v) for v in a]
        d = [np.float64(bv) - av for av, bv in zip(a, b)]
        q = c = np.float64(0.0)
        for i in range(3):
            q += a[i] * a[i]
        for i in range(3):
            c += d[i] * a[i]
        q2 = q * q
        return [[float((1.0 if r == k else 0.0) +
                       ((d[k] * a[r] / q + a[k] * d[r] / q) - a[k] * (a[r] * c) / q2))
                 for k in range(3)] for r in range(3)]


def fill_preparation(cone, rows, s, z, lazy):
    """(message, H(i, j)) of the cone's host preparation; H(i, j) is None
    where the value is not predicted (`lazy`: the nonnegative fill reads s
    and z while writing, and they alias the values)."""
    failed = FILL_PREPARATION[cone], None
    if cone == "zero":
        return failed if (s != 0.0).any() or (z != 0.0).any() else (
            None, lambda i, j: float(i == j))
    if cone == "nonnegative":
        if (s <= 0.0).any() or (z <= 0.0).any():
            return failed
        with np.errstate(all="ignore"):
            ratio = z / s
        return None, lambda i, j: 0.0 if i != j else None if lazy else ratio[i]
    if cone == "exponential":
        blocks = []
        for sk, zk in zip(_items(s, 3), _items(z, 3)):
            if not (_exp_fill_admissible(sk) and _exp_fill_admissible(zk)):
                return failed
            blocks.append(_rank_two_block(sk, zk))
        return None, lambda i, j: blocks[i // 3][i % 3][j % 3] if i // 3 == j // 3 else 0.0
    # Second-order and PSD: H and its failure are those of the cone's own
    # dense NT scaling (W of the same steps); only the SOC message differs.
    size = rows if cone == "second-order" else psd_order(rows)
    try:
        h = getattr(_cpp_cuda, CONES[cone][0])(size).nt_scaling_matrix(s, z)
    except RuntimeError:
        return failed
    return None, lambda i, j: h[i * rows + j]


def _csr_walk(indptr, indices, nnz, offset, rows, write):
    for r in range(rows):
        a, b = indptr[offset + r], indptr[offset + r + 1]
        if a < 0 or b < 0:
            return "CSR indptr must be nonnegative"
        if b > nnz or b < a:
            return "CSR indptr entries must be monotone and within values length"
        for k in range(a, b):
            if indices[k] < 0:
                return "CSR indices must be nonnegative"
            write(k, r, indices[k])
    return None


def _coo_walk(row_indices, col_indices, offset, rows, write):
    for k, row in enumerate(row_indices):
        if row < 0:
            return "COO row_indices must be nonnegative"
        if offset <= row < offset + rows:
            if col_indices[k] < 0:
                return "COO col_indices must be nonnegative"
            write(k, row - offset, col_indices[k])
    return None


def fill_domain(layout):
    def domain(cone, rows, sc, a):
        values, offset = a["values"], sc["row_offset"]
        lazy = cone == "nonnegative" and any(np.shares_memory(a[n], values) for n in "sz")
        message, h = fill_preparation(cone, rows, a["s"].copy(), a["z"].copy(), lazy)
        out, known = values.copy(), np.ones(len(values), bool)
        first, second = (a[name].tolist() for name in FILL_INDICES[layout])
        if message is None and layout == "csr" and len(first) < offset + rows + 1:
            message = "CSR indptr is too short for the requested cone row range"
        if message is not None:
            return Expect(RuntimeError, message, after=(out, known))

        def write(k, r, col):  # inside the block's columns H, elsewhere in its rows 0.0
            v = h(r, col - offset) if offset <= col < offset + rows else 0.0
            known[k] = v is not None
            out[k] = 0.0 if v is None else v
        message = (_csr_walk(first, second, len(values), offset, rows, write) if layout == "csr"
                   else _coo_walk(first, second, offset, rows, write))
        return Expect(message and RuntimeError, message, after=(out, known))
    return domain


@st.composite
def fill_arrays(draw, layout, cone, rows, sc):
    """s, z, the two index vectors and values of one fill: a pattern around
    the cone's block (columns inside it, beside it, anywhere, INT64_MAX), then
    a few corruptions (negative, decreasing, too large or missing row
    pointers; negative row or column indices) and sometimes a wrong length."""
    offset = sc["row_offset"]
    block = [offset + k for k in range(rows) if offset + k <= INT64_MAX]
    beside = [i for i in (offset - 1, offset + rows) if 0 <= i <= INT64_MAX]
    span = offset + rows + 2 if offset <= 8 else 8
    index = st.one_of(*[st.sampled_from(block)] * 2 * bool(block), st.integers(0, span),
                      *[st.sampled_from(beside)] * bool(beside), st.just(INT64_MAX))
    negative = st.sampled_from([-1, -2, -(2**63)])
    at = lambda v: st.integers(0, len(v) - 1)  # noqa: E731
    if layout == "csr":
        matrix_rows = offset + rows + draw(st.integers(0, 2)) if offset <= 8 else draw(
            st.integers(0, 3))
        counts = draw(st.lists(st.integers(0, 3), min_size=matrix_rows, max_size=matrix_rows))
        first = [0] + list(itertools.accumulate(counts))
        second = draw(st.lists(index, min_size=first[-1], max_size=first[-1]))
        for _ in range(draw(st.integers(0, 2))):
            how = draw(st.sampled_from(["negative", "decrease", "beyond", "index"] * 2 +
                                       ["truncate"]))
            if how == "index" and second:  # mostly in the cone's rows
                own = first[offset:offset + rows + 1]
                own = range(max(0, min(own)), min(max(own), len(second))) if own else ()
                second[draw(st.sampled_from(own) if own and draw(st.booleans())
                            else at(second))] = draw(negative)
            elif how != "index" and first:  # mostly the cone's own row pointers
                k = draw(st.one_of(at(first), st.integers(min(offset, len(first) - 1),
                                                          min(offset + rows, len(first) - 1))))
                if how == "truncate":
                    first = first[:k]
                else:
                    first[k] = draw(negative) if how == "negative" else \
                        max(first[k] - draw(st.integers(1, 3)), -(2**63)) if how == "decrease" \
                        else draw(st.sampled_from([len(second) + 1, len(second) + 2, INT64_MAX]))
        nnz = len(second)
    else:
        nnz = draw(st.integers(0, 10))
        first = draw(st.lists(index, min_size=nnz, max_size=nnz))
        second = draw(st.lists(index, min_size=nnz, max_size=nnz))
        for _ in range(draw(st.integers(0, 2)) * bool(nnz)):
            corrupted = first if draw(st.booleans()) else second
            corrupted[draw(at(corrupted))] = draw(negative)
    lengths = {"s": rows, "z": rows, "values": nnz}
    wrong = draw(st.sampled_from([None] * 12 + ["s", "z", "values", "second"]))
    if wrong == "second":
        second = second[:-1] if second and draw(st.booleans()) else second + [draw(index)]
    elif wrong:
        lengths[wrong] = max(0, lengths[wrong] + draw(st.sampled_from([-1, 1, 2])))
    # s and z inside the cone more often than other operations get them.
    arrays = {name: _interior(cone, rows, n, draw(st.integers(0, 2**32)))
              if name != "values" and draw(st.booleans()) else draw(vector_values(cone, rows, n))
              for name, n in lengths.items()}
    ray = draw(st.sampled_from("sz")) if cone == "exponential" and draw(st.booleans()) else None
    if ray and len(arrays[ray]) == rows:
        # A point on the ray of the closure, which the fill's test accepts.
        k = 3 * draw(st.integers(0, rows // 3 - 1))
        arrays[ray][k:k + 3] = [-draw(st.floats(1e-3, 1e3)), draw(st.sampled_from([0.0, -0.0])),
                                draw(st.floats(0.0, 1e3))]
    names = FILL_INDICES[layout]
    arrays.update({names[0]: np.array(first, np.int64), names[1]: np.array(second, np.int64)})
    return arrays


@dataclass
class Op:
    cone: str            # key of CONES, or "packing" for the module functions
    method: str
    params: tuple        # (name, kind), in parameter order
    steps: object        # (rows, scalars) -> [(array name, length) | (exception, message)]
    domain: object = None  # (cone, rows, scalars, arrays) -> Expect or None
    # The domain failure that may come after writes to the output (or rows -> it).
    partial: object = None
    alias_safe: str = None  # "same": input may be the output; "any": any overlap
    placement: bool = False  # arrays may claim other devices (fake DLPack arrays)
    draw_arrays: object = None  # (cone, rows, scalars) -> strategy of {name: values}


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
    if cone == "exponential":  # the dual cone's three, checked as the primal's
        ops += [Op(cone, "project_dual_into", IN_OUT, lambda r, sc: [("input", r), ("output", r)],
                   alias_safe="same"),
                Op(cone, "violation_dual", (("input", RO),), rows_only("input")),
                Op(cone, "contains_dual", (("input", RO), ("atol", "atol")), rows_only("input"))]
    ops += psd_nt_ops() if cone == "psd" else [
            Op(cone, "nt_scaling_matrix", PAIR, lambda r, sc: [("s", r), ("z", r)],
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
    for layout, (first, second) in FILL_INDICES.items():
        params = PAIR + ((first, IDX), (second, IDX), ("values", W),
                         ("row_offset", "row_offset"), ("stream", "stream"))
        ops.append(Op(cone, f"hmatrix_{layout}_values_into", params, fill_steps(layout),
                      fill_domain(layout), placement=True,
                      draw_arrays=lambda c, r, sc, layout=layout: fill_arrays(layout, c, r, sc)))
    return ops


def psd_nt_ops():
    def dense(rows, sc):
        return [("s", rows), host_only("s"), ("z", rows), host_only("z")]

    def batch(rows, sc):  # the batch views, the same-device rules, the device on output
        return nt_batch_steps(rows, sc) + [same_device("s", "z", SAME_IN),
                                           same_device("s", "output", SAME_OUT),
                                           dispatch_on("output")]
    # Writes come before later blocks are tested (n = 1 clears the output first).
    partial = lambda rows: PSD_INPUTS if rows <= 3 else PSD_MATRICES  # noqa: E731
    cone = "psd"
    return [Op(cone, "nt_scaling_matrix", PAIR, dense, psd_dense_domain, placement=True),
            Op(cone, "nt_scaling_matrix_array", PAIR, dense, psd_dense_domain, placement=True),
            Op(cone, "nt_scaling_matrix_into", INTO, batch, psd_batch_domain("batch"), partial,
               placement=True),
            Op(cone, "nt_scaling_matrix_batch_into", BATCH, batch, psd_batch_domain("batch"),
               partial, placement=True),
            Op(cone, "nt_scaling_matrix_batch_custom_into", BATCH, batch,
               psd_batch_domain("batch"), partial, placement=True),
            Op(cone, "nt_scaling_matrix_batch_cublas_into", BATCH, batch,
               psd_batch_domain("cublas"), placement=True),
            Op(cone, "nt_scaling_matrix_default_method", (("batch", "batch"),),
               lambda r, sc: [])]


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


def call(op, size, args):
    target = _cpp_cuda if op.cone == "packing" else getattr(_cpp_cuda, CONES[op.cone][0])(size)
    return getattr(target, op.method)(*args)


def outcome(op, size, args):
    try:
        return call(op, size, args), None
    except (RuntimeError, ValueError, TypeError, MemoryError) as err:
        return None, err


def expected_outcome(op, rows, scalars, steps, arrays, devices, aliased):
    """The first failing size, view or device check, else the domain's verdict."""
    for step in steps:
        if callable(step):
            failure = step(arrays, devices)
        elif isinstance(step[0], str):
            failure = view_failure(step[0], step[1], arrays[step[0]], devices[step[0]])
        else:
            failure = step
        if failure:
            return Expect(*failure)
    if aliased and op.partial:  # the inputs change under the writes
        partial = op.partial(rows) if callable(op.partial) else op.partial
        return Expect(RuntimeError, partial, must=False, written=None)
    return op.domain(op.cone, rows, scalars, arrays) if op.domain else None


def assert_same_values(got, want):
    """Bit for bit, except that any NaN matches any NaN."""
    same = (got.view(np.uint64) == want.view(np.uint64)) | (np.isnan(got) & np.isnan(want))
    assert same.all(), (got, want)


# The solver kit's methods have their own property tests (test_kit*.py).
KIT_METHODS = ("degree", "identity_into", "max_step", "scaling_length", "nt_scaling_into",
               "nt_scaled_point_into", "nt_apply_into", "nt_hessian_into",
               "nt_hessian_csr_values_into", "nt_hessian_coo_values_into",
               "jordan_product_into", "jordan_divide_into", "barrier_gradient_into",
               "barrier_gradient_dual_into", "max_step_dual")


def test_every_host_operation_is_fuzzed():
    fuzzed = {(op.cone, op.method) for op in OPS}
    missing = []
    for cone, (cls, _) in CONES.items():
        for name in dir(getattr(_cpp_cuda, cls)):
            if not name.startswith("_") and name not in ("dim", "rows") + KIT_METHODS and \
                    (cone, name) not in fuzzed:
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
    nominal = {step[0]: step[1] for step in steps
               if not callable(step) and isinstance(step[0], str)}
    exact = data.draw(st.booleans(), "exact lengths")
    drawn = data.draw(op.draw_arrays(op.cone, rows, scalars), "arrays") if op.draw_arrays else {}
    # Operations with many arrays get clean calls half of the time, so that
    # their own checks are reached. Placement: mostly all on the host, else
    # all on CUDA; now and then one array elsewhere (another ordinal, a
    # refused device type).
    faults = not (op.placement or op.draw_arrays) or data.draw(st.booleans(), "faults")
    common = data.draw(st.sampled_from([HOST] * 3 + [(CUDA, 0)]), "device") if \
        op.placement and faults else HOST

    # The output is made first, so that inputs can alias it.
    arrays, readonly, devices, passed = {}, {}, {}, {}
    output_name = next((name for name, kind in op.params if kind == W), None)
    for name, kind in sorted((p for p in op.params if p[1] not in SCALARS),
                             key=lambda p: p[1] != W):
        if name in drawn:
            values = drawn[name]
            n = len(values)
        else:
            n = nominal.get(name)
            n = None if n is not None and n > 64 else n  # huge counts: only wrong lengths
            if n is None or not exact:
                around = 3 if n is None else n + 2
                n = data.draw(st.one_of(st.just(n), st.integers(0, around)) if n is not None
                              else st.integers(0, around), f"{name} length")
            values = data.draw(VECTORS[kind](op.cone, rows, n), f"{name} values")
        misalign = data.draw(st.one_of(st.just(0), st.just(0), st.integers(1, 7)),
                             f"{name} misalignment") if faults else 0
        devices[name] = data.draw(st.sampled_from(DEVICES), f"{name} device") if \
            op.placement and faults and data.draw(st.integers(0, 7), f"{name} moved") == 0 \
            else common
        out = arrays.get(output_name)
        fits = out is not None and (len(out) == n if op.alias_safe == "same" else len(out) >= n)
        if kind == RO and fits and data.draw(st.integers(0, 3), f"{name} aliases output") == 0:
            offset = 0 if op.alias_safe == "same" else data.draw(
                st.integers(0, len(out) - n), f"{name} offset")
            arrays[name] = out[offset:offset + n]
        else:
            arrays[name] = placed(values, misalign, writable=kind == W)
            if kind != W:
                readonly[name] = arrays[name]
        passed[name] = arrays[name] if devices[name] == HOST else FakeDeviceArray(
            arrays[name], *devices[name])
    args = [scalars[name] if kind in SCALARS else passed[name] for name, kind in op.params]
    aliased = set(arrays) - set(readonly) - {output_name}

    expected = expected_outcome(op, rows, scalars, steps, arrays, devices, aliased)
    if HAS_CUDA and expected is not None and expected.message == RUNTIME:
        reject()  # fake device arrays would reach a real device

    before = {name: a.tobytes() for name, a in arrays.items()}
    _, err = outcome(op, size, args)
    # Shown by --hypothesis-show-statistics: how often each outcome came up.
    event("returned" if err is None else f"{type(err).__name__}: {str(err).split(' expected')[0]}")
    if err is None:
        assert expected is None or expected.exc is None or not expected.must, expected
    else:
        assert expected is not None and (type(err), str(err)) == (expected.exc, expected.message)
    out = arrays.get(output_name)
    if expected is not None and expected.after is not None:
        values, known = expected.after
        assert_same_values(out[known], values[known])
    elif err is not None and out is not None and expected.written is not None:
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
