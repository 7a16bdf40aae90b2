"""Sparse patterns and the dense reference of the Hessian fills, shared by the
host and GPU fill tests: fill-admissible points of every cone, SciPy patterns
around a cone's block, their CSR and COO index arrays, and the expected
values (the cone's own nt_scaling_matrix scattered into the pattern)."""
import numpy as np
import scipy.sparse as sp
from samples import interior_blocks, soc_interior

KINDS = ["zero", "nonnegative", "second-order", "exponential", "psd"]
# (kind, PSD matrix order): every cone once, and the PSD orders on both sides
# of the device's switch from the dense gather (1, 2) to the W gather (3 on).
CONES = [(kind, 3) for kind in KINDS[:-1]] + [("psd", n) for n in (1, 2, 3, 5, 9)]
CONE_IDS = [kind if kind != "psd" else f"psd{n}" for kind, n in CONES]
LAYOUTS = ["csr", "coo"]
PATTERNS = ["block", "partial", "wide"]


def spd_svec(m, n, rng):
    """svec of a well-conditioned random symmetric positive definite n x n matrix."""
    a = rng.standard_normal((n, n))
    return m.psd_svec(np.ascontiguousarray((a @ a.T + n * np.eye(n)).ravel()), n)


def fill_point(m, kind, rng, order=3):
    """(cone, s, z) that the cone's fill accepts."""
    if kind == "zero":
        return m.ZeroConeCpp(4), np.array([0.0, -0.0, 0.0, 0.0]), np.zeros(4)
    if kind == "nonnegative":
        return m.NonnegativeConeCpp(5), rng.uniform(0.2, 3.0, 5), rng.uniform(0.2, 3.0, 5)
    if kind == "second-order":
        return m.SecondOrderConeCpp(5), soc_interior(5, rng), soc_interior(5, rng, 2.0)
    if kind == "exponential":
        return m.ExponentialConeCpp(3), interior_blocks(rng, 3), interior_blocks(rng, 3)
    return m.PsdConeCpp(order), spd_svec(m, order, rng), spd_svec(m, order, rng)


def dense_h(cone, s, z):
    """The cone's H block: its nt_scaling_matrix, rows x rows."""
    return np.array(cone.nt_scaling_matrix(s, z)).reshape(cone.rows, cone.rows)


def pattern(kind, size, offset, rows, rng):
    """A size x size SciPy COO pattern (every stored entry kept, values 1):
    'block' is exactly the cone's block, 'partial' about half of its entries,
    'wide' a random pattern over the whole matrix (entries outside the block
    in the cone's rows and in other rows) plus the block's diagonal."""
    if kind == "wide":
        dense = rng.random((size, size)) < 0.45
        dense[np.arange(offset, offset + rows), np.arange(offset, offset + rows)] = True
    else:
        dense = np.zeros((size, size), dtype=bool)
        block = np.ones((rows, rows), dtype=bool) if kind == "block" else rng.random(
            (rows, rows)) < 0.5
        dense[offset:offset + rows, offset:offset + rows] = block
    r, c = np.nonzero(dense)
    return sp.coo_matrix((np.ones(len(r)), (r, c)), shape=(size, size))


def csr_arrays(mat, rng=None):
    """(indptr, indices) as int64; with rng, each row's columns are shuffled."""
    csr = mat.tocsr()
    indices = csr.indices.astype(np.int64)
    if rng is not None:
        for a, b in zip(csr.indptr[:-1], csr.indptr[1:]):
            indices[a:b] = rng.permutation(indices[a:b])
    return csr.indptr.astype(np.int64), indices


def coo_arrays(mat, rng, duplicates=3):
    """(row_indices, col_indices) as int64 in shuffled order, with a few
    entries stored twice."""
    coo = mat.tocoo()
    r, c = coo.row.astype(np.int64), coo.col.astype(np.int64)
    extra = rng.integers(0, len(r), duplicates) if len(r) else np.zeros(0, dtype=np.int64)
    r, c = np.concatenate([r, r[extra]]), np.concatenate([c, c[extra]])
    order = rng.permutation(len(r))
    return r[order], c[order]


def entry_rows(indptr):
    """The row of every stored entry of a CSR pattern."""
    return np.repeat(np.arange(len(indptr) - 1), np.diff(indptr))


def index_arrays(layout, mat, rng):
    """(first, second, row of each entry, column of each entry) of `mat` in
    the layout, CSR rows with shuffled columns."""
    if layout == "csr":
        indptr, indices = csr_arrays(mat, rng)
        return indptr, indices, entry_rows(indptr), indices
    row, col = coo_arrays(mat, rng)
    return row, col, row, col


def expected_fill(rows_of, cols_of, initial, offset, h):
    """`initial` after a fill of the block h at `offset`: entries in the
    block's rows get h inside its columns and 0.0 outside; others stay."""
    n = h.shape[0]
    r, c = rows_of - offset, cols_of - offset
    in_rows, in_cols = (r >= 0) & (r < n), (c >= 0) & (c < n)
    out = initial.copy()
    out[in_rows] = 0.0
    both = in_rows & in_cols
    out[both] = h[r[both], c[both]]
    return out


def fill(cone, layout, s, z, first, second, values, row_offset=0, stream=0):
    method = f"hmatrix_{layout}_values_into"
    getattr(cone, method)(s, z, first, second, values, row_offset, stream)


def device_rule(layout, first, second, nnz, offset, h, initial):
    """What the device writes for any pattern: CSR rows take the positions of
    [indptr[g], indptr[g + 1]) inside [0, nnz); indices outside the block
    (negative ones included) count as outside."""
    n = h.shape[0]
    out = initial.copy()

    def write(p, r, c):
        out[p] = h[r - offset, c - offset] if 0 <= c - offset < n else 0.0
    if layout == "csr":
        for g in range(offset, offset + n):
            for p in range(max(first[g], 0), min(max(first[g + 1], 0), nnz)):
                write(p, g, second[p])
    else:
        for p in range(nnz):
            if 0 <= first[p] - offset < n:
                write(p, first[p], second[p])
    return out


# Malformed (layout, first, second) patterns for a cone of 3 rows at
# row_offset 1, which the device fills must survive without stepping outside
# their arrays; no two CSR rows share a position.
BIG = 2**62
MALFORMED = [
    ("csr", [99, 6, 4, -3, 2], [-1, BIG, 1, 2, 3, 0, 5, -9, 2, 3]),   # decreasing, negative
    ("csr", [0, 8, 15, 15, 15], [1, 2, 3, 1, 2, 3, 1, 2, -BIG, 2]),   # beyond nnz
    ("csr", [0, -4, 10, 10, -1], [3, 1, 2, 3, 1, 2, 3, 1, 2, 3]),
    ("coo", [-1, 1, BIG, 2, 3, -BIG, 2, 3, 0, 1], [1, -1, 1, BIG, 3, 2, -5, 1, 1, 2]),
]
