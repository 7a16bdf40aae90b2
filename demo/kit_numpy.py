"""A NumPy stand-in for the module's solver kit on the PSD cone, until the
module's PsdConeCpp has it (the zero, nonnegative and second-order cones
already run on the module).

Same class name, method names, arguments and semantics as the kit's Python
surface (vectors in svec form: the lower triangle row by row, off-diagonals
times sqrt(2)); host arrays only. The compact scaling layout is this file's
own (the kit's is opaque): the symmetric factor W_p^1/2 and its inverse, both
order x order, row-major, where W_p Z W_p = S, then lam.

Written for clarity, not speed; it goes away with the module's PSD kit.
"""
import math

import numpy as np


def _check(name, array, n):
    if array.ndim != 1 or array.size != n:
        raise RuntimeError(f"{name} expected {n} entries, got {array.size}")


class _Kit:
    """The batch frame: length checks and per-item loops over the cone math. Every compact scaling
    here ends with the item's lam."""

    label = ""

    def __init__(self, dim):
        self.dim = int(dim)

    def _items(self, array, batch, width, name):
        _check(name, array, width * batch)
        return array.reshape(batch, width)

    def identity_into(self, out, batch=1, stream=0):
        self._items(out, batch, self.rows, "out")[:] = self._identity()

    def max_step(self, x, dx, batch=1, stream=0):
        xs, dxs = self._items(x, batch, self.rows, "x"), self._items(dx, batch, self.rows, "dx")
        best = math.inf
        for b in range(batch):
            if not self._contains(xs[b]):
                raise RuntimeError(f"{self.label} max_step: x of item {b} is not in the cone")
            best = min(best, self._max_step(xs[b], dxs[b]))
        return best

    def scaling_length(self, batch=1):
        return self._scaling_width() * batch

    def nt_scaling_into(self, s, z, scaling, batch=1, stream=0):
        ss, zs = self._items(s, batch, self.rows, "s"), self._items(z, batch, self.rows, "z")
        out = self._items(scaling, batch, self._scaling_width(), "scaling")
        result = np.empty_like(out)
        for b in range(batch):
            for name, v in (("s", ss[b]), ("z", zs[b])):
                if not self._interior(v):
                    raise RuntimeError(f"{self.label} NT scaling: {name} of item {b} "
                                       "is not strictly interior")
            result[b] = self._scaling(ss[b], zs[b])
        out[:] = result

    def nt_scaled_point_into(self, scaling, lam, batch=1, stream=0):
        w = self._items(scaling, batch, self._scaling_width(), "scaling")
        out = self._items(lam, batch, self.rows, "lam")
        out[:] = w[:, w.shape[1] - self.rows:]   # every layout here ends with lam

    def nt_apply_into(self, scaling, x, out, batch=1, inverse=False, stream=0):
        w = self._items(scaling, batch, self._scaling_width(), "scaling")
        xs, o = self._items(x, batch, self.rows, "x"), self._items(out, batch, self.rows, "out")
        o[:] = [self._w_matrix(w[b], inverse) @ xs[b] for b in range(batch)]

    def _hessians(self, scaling, batch, inverse):
        w = self._items(scaling, batch, self._scaling_width(), "scaling")
        blocks = []
        for b in range(batch):
            m = self._w_matrix(w[b], not inverse)   # H = W^-2, H^-1 = W^2
            h = m @ m
            blocks.append(np.tril(h) + np.tril(h, -1).T)   # exactly symmetric
        return np.array(blocks).reshape(batch, self.rows, self.rows)

    def nt_hessian_into(self, scaling, out, batch=1, inverse=False, stream=0):
        _check("out", out, batch * self.rows ** 2)
        out[:] = self._hessians(scaling, batch, inverse).ravel()

    def _fill(self, scaling, rows, cols, values, row_offset, batch, inverse, scale):
        _check("values", values, rows.size)
        hess = self._hessians(scaling, batch, inverse)
        n = self.rows
        item = (rows - row_offset) // n
        inside = ((rows >= row_offset) & (rows < row_offset + batch * n)
                  & (cols >= row_offset + item * n) & (cols < row_offset + (item + 1) * n))
        i, j, b = rows[inside] - row_offset, cols[inside] - row_offset, item[inside]
        values[inside] = scale * hess[b, i - b * n, j - b * n]

    def nt_hessian_csr_values_into(self, scaling, indptr, indices, values, row_offset=0, batch=1,
                                   inverse=False, scale=1.0, stream=0):
        rows = np.repeat(np.arange(indptr.size - 1, dtype=np.int64), np.diff(indptr))
        self._fill(scaling, rows, indices, values, row_offset, batch, inverse, scale)

    def nt_hessian_coo_values_into(self, scaling, row_indices, col_indices, values, row_offset=0,
                                   batch=1, inverse=False, scale=1.0, stream=0):
        self._fill(scaling, row_indices, col_indices, values, row_offset, batch, inverse, scale)

    def jordan_product_into(self, x, y, out, batch=1, stream=0):
        xs, ys = self._items(x, batch, self.rows, "x"), self._items(y, batch, self.rows, "y")
        o = self._items(out, batch, self.rows, "out")
        o[:] = [self._product(xs[b], ys[b]) for b in range(batch)]

    def jordan_divide_into(self, lam, v, out, batch=1, stream=0):
        ls, vs = self._items(lam, batch, self.rows, "lam"), self._items(v, batch, self.rows, "v")
        o = self._items(out, batch, self.rows, "out")
        result = np.empty_like(o)
        for b in range(batch):
            if not self._interior(ls[b]):
                raise RuntimeError(f"{self.label} Jordan division: lam of item {b} "
                                   "is not strictly interior")
            result[b] = self._divide(ls[b], vs[b])
        o[:] = result


def _smat(v, n):
    x = np.zeros((n, n))
    r, c = np.tril_indices(n)
    x[r, c] = np.where(r == c, v, v / math.sqrt(2.0))
    return x + np.tril(x, -1).T


def _svec(x):
    r, c = np.tril_indices(x.shape[0])
    return np.where(r == c, x[r, c], math.sqrt(2.0) * x[r, c])


class PsdConeCpp(_Kit):
    label = "PSD"

    @property
    def rows(self):
        return self.dim * (self.dim + 1) // 2

    def degree(self):
        return self.dim

    def _identity(self):
        return _svec(np.eye(self.dim))

    def _min_eig(self, x):
        return np.linalg.eigvalsh(_smat(x, self.dim))[0]

    def _contains(self, x):
        return bool(np.all(np.isfinite(x)) and self._min_eig(x) >= 0)

    def _interior(self, x):
        return bool(np.all(np.isfinite(x)) and self._min_eig(x) > 0)

    def _max_step(self, x, dx):
        d, q = np.linalg.eigh(_smat(x, self.dim))
        if d[0] <= 0:
            raise RuntimeError("PSD max_step: boundary points are not handled by the stand-in")
        r = q / np.sqrt(d)
        t = -np.linalg.eigvalsh(r.T @ _smat(dx, self.dim) @ r)[0]
        return 1.0 / t if t > 0 else math.inf

    def _scaling_width(self):
        return 2 * self.dim ** 2 + self.rows   # W_p^1/2, W_p^-1/2, lam

    def _scaling(self, s, z):
        n = self.dim
        ls, lz = np.linalg.cholesky(_smat(s, n)), np.linalg.cholesky(_smat(z, n))
        _, sig, vt = np.linalg.svd(lz.T @ ls)
        wp = ls @ vt.T @ np.diag(1.0 / sig) @ vt @ ls.T
        d, q = np.linalg.eigh((wp + wp.T) / 2.0)
        half = (q * np.sqrt(d)) @ q.T
        inv_half = (q / np.sqrt(d)) @ q.T
        return np.concatenate([half.ravel(), inv_half.ravel(), _svec(half @ _smat(z, n) @ half)])

    def _w_matrix(self, w, inverse):
        """W as a matrix on svec coordinates: X -> W_p^1/2 X W_p^1/2 (or the inverse)."""
        n = self.dim
        f = (w[n * n:2 * n * n] if inverse else w[:n * n]).reshape(n, n)
        basis = np.eye(self.rows)
        return np.column_stack([_svec(f @ _smat(e, n) @ f) for e in basis])

    def _product(self, x, y):
        a, b = _smat(x, self.dim), _smat(y, self.dim)
        return _svec((a @ b + b @ a) / 2.0)

    def _divide(self, lam, v):
        d, q = np.linalg.eigh(_smat(lam, self.dim))
        inner = q.T @ _smat(v, self.dim) @ q
        return _svec(q @ (inner / ((d[:, None] + d[None, :]) / 2.0)) @ q.T)
