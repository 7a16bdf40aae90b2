"""Sparse Hessian fills on host arrays against the dense reference (each
cone's own nt_scaling_matrix scattered into SciPy CSR and COO patterns):
which entries are written and which stay bit for bit (cones sharing one
matrix: test_demo), the index errors with the writes made before them, the
device traversal run on the host, the per-cone input tests, and the index
arrays' kind (the argument checks in order are in test_views)."""
import numpy as np
import pytest
from cone_cases import MARK
from sparse_patterns import (CONE_IDS, CONES, LAYOUTS, MALFORMED, PATTERNS, dense_h,
                             device_rule, expected_fill, fill, fill_point, index_arrays, pattern)

I64 = np.int64


@pytest.mark.parametrize("offset", [0, 3])
@pytest.mark.parametrize("shape", PATTERNS)
@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("kind, order", CONES, ids=CONE_IDS)
def test_fill_writes_the_block_and_leaves_other_rows(m, rng, kind, order, layout, shape, offset):
    cone, s, z = fill_point(m, kind, rng, order)
    size = offset + cone.rows + 2
    first, second, rows_of, cols_of = index_arrays(
        layout, pattern(shape, size, offset, cone.rows, rng), rng)
    initial = rng.standard_normal(len(cols_of))
    values = initial.copy()
    fill(cone, layout, s, z, first, second, values, offset)
    np.testing.assert_array_equal(
        values, expected_fill(rows_of, cols_of, initial, offset, dense_h(cone, s, z)))


@pytest.mark.parametrize("layout", LAYOUTS)
def test_documented_examples(m, layout):
    # diag(z / s) at row_offset 1 of a full 3 x 3 pattern, the entries in
    # reverse order for COO; PSD 2 x 2 with W = diag(2, 3): H = diag(4, 6, 9).
    rows, cols = np.repeat(np.arange(3, dtype=I64), 3), np.tile(np.arange(3, dtype=I64), 3)
    first = np.array([0, 3, 6, 9], I64) if layout == "csr" else rows[::-1].copy()
    second = cols if layout == "csr" else cols[::-1].copy()
    values = np.full(9, MARK)
    fill(m.NonnegativeConeCpp(2), layout, np.array([2.0, 4.0]), np.array([1.0, 3.0]), first,
         second, values, 1)
    expected = [MARK] * 3 + [0.0, 0.5, 0.0] + [0.0, 0.0, 0.75]
    assert (values if layout == "csr" else values[::-1]).tolist() == expected
    values = np.full(9, MARK)
    m.PsdConeCpp(2).hmatrix_coo_values_into(np.array([1.0, 0.0, 1.0]), np.array([4.0, 0.0, 9.0]),
                                            rows, cols, values)
    assert values.tolist() == [4.0, 0.0, 0.0, 0.0, 6.0, 0.0, 0.0, 0.0, 9.0]


# --------------------------------------------------------------- index errors

# A 5 x 5 pattern holding every entry; nonnegative cone of dim 3 at row_offset
# 1, so rows 1..3 are positions 5..19 in both layouts (COO in row-major order).
def _full_5x5():
    indptr = np.arange(0, 26, 5, dtype=I64)
    cols = np.tile(np.arange(5, dtype=I64), 5)
    return indptr, cols, np.repeat(np.arange(5, dtype=I64), 5), cols.copy()


INDPTR_NEG = "CSR indptr must be nonnegative"
INDPTR_ORDER = "CSR indptr entries must be monotone and within values length"


@pytest.mark.parametrize("layout, array, at, value, message, written", [
    ("csr", 0, 2, -1, INDPTR_NEG, 0),       # end of local row 0
    ("csr", 0, 1, -1, INDPTR_NEG, 0),       # start of local row 0
    ("csr", 0, 3, -4, INDPTR_NEG, 5),       # end of local row 1
    ("csr", 0, 3, 8, INDPTR_ORDER, 5),      # row 1 ends before it starts
    ("csr", 0, 4, 26, INDPTR_ORDER, 10),    # row 2 ends beyond values
    ("csr", 1, 12, -1, "CSR indices must be nonnegative", 7),
    ("csr", 0, 0, -3, None, 15),            # outside the cone's pointers: not read
    ("csr", 0, 5, -3, None, 15),
    ("csr", 1, 2, -1, None, 15),            # row 0 is not the cone's
    ("coo", 0, 2, -1, "COO row_indices must be nonnegative", 0),
    ("coo", 0, 22, -1, "COO row_indices must be nonnegative", 15),  # any row fails
    ("coo", 1, 12, -1, "COO col_indices must be nonnegative", 7),
    ("coo", 1, 2, -1, None, 15),            # column of another row: not read
])
def test_index_errors_keep_the_earlier_writes(m, layout, array, at, value, message, written):
    indptr, indices, rows, cols = _full_5x5()
    arrays = [indptr, indices] if layout == "csr" else [rows, cols]
    arrays[array][at] = value
    s, z = np.array([1.0, 2.0, 4.0]), np.array([3.0, 3.0, 3.0])
    values = np.full(25, MARK)
    call = lambda: fill(m.NonnegativeConeCpp(3), layout, s, z, *arrays, values, 1)  # noqa: E731
    if message is None:
        call()
    else:
        with pytest.raises(RuntimeError, match=f"^{message}$"):
            call()
    full = np.full(25, MARK)  # what a complete fill writes: rows 1..3 as [0, H row, 0]
    full[5:20] = np.pad(np.diag(z / s), ((0, 0), (1, 1))).ravel()
    np.testing.assert_array_equal(values[:5 + written], full[:5 + written])
    assert (values[5 + written:] == MARK).all()


@pytest.mark.parametrize("length, row_offset, ok", [
    (5, 1, True), (4, 1, False), (4, 0, True), (5, 2**64 - 1, False), (0, 0, False)])
def test_indptr_must_cover_the_cone_rows_only(m, length, row_offset, ok):
    # Nonnegative cone of 3 rows; indptr beyond row_offset + rows + 1 is never needed.
    indptr = np.array([0, 1, 1, 3, 4, 4][:length], I64)  # row 1 of the matrix is empty
    values = np.full(4, MARK)
    call = lambda: m.NonnegativeConeCpp(3).hmatrix_csr_values_into(  # noqa: E731
        np.ones(3), np.full(3, 2.0), indptr, np.array([0, 0, 2, 9], I64), values, row_offset)
    if ok:
        call()
        assert values.tolist() == ([2.0, 0.0, 2.0, MARK] if row_offset == 0 else
                                   [MARK, 0.0, 2.0, 0.0])
    else:
        with pytest.raises(RuntimeError, match="^CSR indptr is too short for the requested "
                                               "cone row range$"):
            call()
        assert (values == MARK).all()


@pytest.mark.parametrize("workers, lanes", [(1, 1), (2, 3)])
@pytest.mark.parametrize("kind", ["zero", "nonnegative", "exponential"])
@pytest.mark.parametrize("layout, first, second", MALFORMED)
def test_device_traversal_stays_inside_its_arrays(m, hooks, rng, kind, layout, first, second,
                                                  workers, lanes):
    """The direct kernels' traversal, run on the host: bad positions and
    indices are passed over, never followed outside values."""
    cone, s, z = {"zero": (m.ZeroConeCpp(3), np.zeros(3), np.zeros(3)),
                  "nonnegative": (m.NonnegativeConeCpp(3), rng.uniform(0.5, 2, 3),
                                  rng.uniform(0.5, 2, 3)),
                  "exponential": (m.ExponentialConeCpp(1), np.array([0.0, 1.0, 2.0]),
                                  np.array([0.5, 1.0, 3.0]))}[kind]
    first, second = np.array(first, I64), np.array(second, I64)
    nnz, guard = len(second), 4
    base = np.full(nnz + 2 * guard, -7.0)
    base[guard:guard + nnz] = initial = rng.standard_normal(nnz)
    direct_kind = {"zero": 0, "nonnegative": 1, "exponential": 2}[kind]
    hooks.hmatrix_direct_device_fill(layout == "csr", direct_kind, s, z, first, second,
                                     base[guard:guard + nnz], 3, 1, workers, lanes)
    assert (base[:guard] == -7.0).all() and (base[guard + nnz:] == -7.0).all()
    np.testing.assert_array_equal(base[guard:guard + nnz], device_rule(
        layout, first, second, nnz, 1, dense_h(cone, s, z), initial))


# ------------------------------------------------------- per-cone input tests

ZERO = "zero-cone sparse H fill requires zero primal and dual inputs"
NONNEG = "nonnegative sparse H fill requires strictly positive inputs"
SOC = "SOC sparse H fill requires strictly interior cone vectors"
EXP = "exponential sparse H fill requires strictly interior inputs"
PSD = "PSD NT scaling requires strictly positive definite matrices"  # all orders: general path


@pytest.mark.parametrize("cls, arg, s, z, message", [
    ("ZeroConeCpp", 2, [0.0, 5e-324], [0.0, 0.0], ZERO),
    ("ZeroConeCpp", 2, [0.0, 0.0], [np.nan, 0.0], ZERO),
    ("NonnegativeConeCpp", 2, [1.0, 1.0], [-1.0, 0.0], NONNEG),
    ("SecondOrderConeCpp", 3, [5.0, 3.0, 4.0], [2.0, 0.0, 0.0], SOC),   # boundary
    ("SecondOrderConeCpp", 2, [1.0, 0.0], [np.nan, 0.0], SOC),
    ("ExponentialConeCpp", 1, [0.0, 0.0, 1.0], [0.0, 1.0, 2.0], EXP),   # y = 0 needs x < 0
    ("ExponentialConeCpp", 1, [0.0, 1.0, 2.0], [-1.0, 0.0, -1e-300], EXP),
    ("ExponentialConeCpp", 1, [0.0, 1.0, 1.0], [0.0, 1.0, 2.0], EXP),   # z = y exp(x / y)
    ("ExponentialConeCpp", 2, [0.0, 1.0, 2.0, 0.0, 1.0, np.nan], [0.0, 1.0, 2.0] * 2, EXP),
    ("PsdConeCpp", 1, [0.0], [1.0], PSD),
    ("PsdConeCpp", 2, [1.0, 0.0, 1.0], [1.0, 0.0, -1.0], PSD),        # Z indefinite
    ("PsdConeCpp", 3, [1.0, 0.0, 1.0, 0.0, 0.0, -2.0], [1.0, 0.0, 1.0, 0.0, 0.0, 1.0], PSD),
])
@pytest.mark.parametrize("layout", LAYOUTS)
def test_inputs_outside_the_domain_fail_before_any_write(m, layout, cls, arg, s, z, message):
    cone = getattr(m, cls)(arg)
    n = cone.rows
    first = np.zeros(n, I64) if layout == "csr" else np.zeros(n * n, I64)  # CSR: too short too
    values = np.full(n * n, MARK)
    with pytest.raises(RuntimeError, match=f"^{message}$"):
        fill(cone, layout, np.array(s), np.array(z), first, np.zeros(n * n, I64), values)
    assert (values == MARK).all()


def _full_block(n):
    return np.arange(0, n * n + 1, n, dtype=I64), np.tile(np.arange(n, dtype=I64), n)


@pytest.mark.parametrize("cls, arg, s, z, expected", [
    ("ZeroConeCpp", 2, [-0.0, 0.0], [0.0, -0.0], [1.0, 0.0, 0.0, 1.0]),
    ("NonnegativeConeCpp", 2, [np.nan, 2.0], [1.0, 1.0], [np.nan, 0.0, 0.0, 0.5]),
])
def test_signed_zero_and_nan_inputs_that_pass(m, cls, arg, s, z, expected):
    values = np.full(4, MARK)
    getattr(m, cls)(arg).hmatrix_csr_values_into(np.array(s), np.array(z), *_full_block(2),
                                                 values)
    np.testing.assert_array_equal(values, expected)


def test_exponential_fill_accepts_the_ray_and_its_own_overflow_rule(m):
    """The ray y = 0 (refused by NT scaling) is filled with the rank-two map;
    a z beyond the clamped perspective (accepted by NT scaling) fails here."""
    cone = m.ExponentialConeCpp(1)
    s, z = np.array([-1.0, 0.0, 0.0]), np.array([-2.0, 0.0, 3.0])
    with pytest.raises(RuntimeError, match="^exponential scaling requires strictly interior"):
        cone.nt_scaling_matrix(s, z)
    values = np.full(9, MARK)
    cone.hmatrix_csr_values_into(s, z, *_full_block(3), values)
    d, q = z - s, s @ s
    reference = np.eye(3) + (np.outer(s, d) + np.outer(d, s)) / q - (d @ s) * np.outer(s, s) / q**2
    np.testing.assert_allclose(values.reshape(3, 3), reference, rtol=1e-15)
    np.testing.assert_allclose(values.reshape(3, 3) @ s, z, rtol=1e-15)
    s2, z2 = np.array([0.0, 1.0, 2.0]), np.array([710.0, 1.0, 1e308])
    cone.nt_scaling_matrix(s2, z2)
    with pytest.raises(RuntimeError, match=f"^{EXP}$"):
        cone.hmatrix_coo_values_into(s2, z2, np.zeros(1, I64), np.zeros(1, I64), np.zeros(1))


def test_index_arrays_are_int64_without_conversion_and_take_keywords(m):
    cone = m.NonnegativeConeCpp(1)
    one = np.ones(1)
    for bad in (np.zeros(2, np.int32), np.zeros(2), [0, 1]):
        with pytest.raises(TypeError):
            cone.hmatrix_csr_values_into(one, one, bad, np.zeros(1, I64), np.zeros(1))
    values = np.zeros(1)
    cone.hmatrix_coo_values_into(s=one, z=np.full(1, 3.0), row_indices=np.zeros(1, I64),
                                 col_indices=np.zeros(1, I64), values=values)
    assert values.tolist() == [3.0]
    cone.hmatrix_csr_values_into(s=one, z=one, indptr=np.array([0, 0, 1], I64),
                                 indices=np.ones(1, I64), values=values, row_offset=1, stream=0)
    assert values.tolist() == [1.0]
