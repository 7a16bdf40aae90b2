"""The cone kinds of the solver-kit tests: interior points (well inside or at
a relative gap from the boundary), the Jordan inverse, exact membership in
rational arithmetic, and CVXOPT's view of the same cone (its `dims` entry,
how a vector of ours is stored there, and its H = (W'W)^-1 from
`misc.compute_scaling`). A kind is looked up by name in KINDS."""
from fractions import Fraction

import numpy as np


class Nonnegative:
    name, cls, sizes = "nonnegative", "NonnegativeConeCpp", (1, 7, 40)

    @staticmethod
    def interior(n, rng, gap=None):
        x = rng.uniform(0.5, 4.0, n)
        if gap is not None:  # one entry at `gap` relative to the largest
            x[rng.integers(n)] = gap * x.max()
        return x

    @staticmethod
    def inverse(x):
        return 1.0 / x

    @staticmethod
    def contains_exactly(x):
        return all(Fraction(v) >= 0 for v in x)

    @staticmethod
    def cvxopt_dims(n):
        return {"l": n, "q": [], "s": []}

    to_cvxopt = staticmethod(lambda x: x)

    @staticmethod
    def cvxopt_h(W, n):
        return np.diag(1.0 / np.array(W["d"]).ravel() ** 2)


class SecondOrder:
    name, cls, sizes = "soc", "SecondOrderConeCpp", (1, 2, 5, 33)

    @staticmethod
    def interior(n, rng, gap=None):
        x = rng.normal(size=n)
        tail = np.linalg.norm(x[1:])
        if n == 1 or gap is None:
            x[0] = tail + rng.uniform(0.2, 2.0)
        else:  # (x0 - |xbar|) / x0 = gap
            x[0] = tail / (1.0 - gap)
        return x

    @staticmethod
    def inverse(x):  # J x / det x, det x exact (it cancels next to the boundary)
        j = -x
        j[0] = x[0]
        f = [Fraction(v) for v in x]
        return j / float(f[0] * f[0] - sum(v * v for v in f[1:]))

    @staticmethod
    def contains_exactly(x):
        f = [Fraction(v) for v in x]
        return f[0] >= 0 and f[0] * f[0] >= sum(v * v for v in f[1:])

    @staticmethod
    def cvxopt_dims(n):
        return {"l": 0, "q": [n], "s": []}

    to_cvxopt = staticmethod(lambda x: x)

    @staticmethod
    def cvxopt_h(W, n):
        v = np.array(W["v"][0]).ravel()
        J = np.diag([1.0] + [-1.0] * (n - 1))
        Wm = W["beta"][0] * (2 * np.outer(v, v) - J)
        return np.linalg.inv(Wm @ Wm)


KINDS = {k.name: k for k in (Nonnegative, SecondOrder)}


def cone_of(m, kind, n):
    return getattr(m, KINDS[kind].cls)(n)


def backward_error(residual, *scales):
    return np.linalg.norm(residual) / sum(np.linalg.norm(s) for s in scales)


class Kit:
    """One cone's kit calls on NumPy arrays, returning new arrays."""

    def __init__(self, cone, batch=1):
        self.cone, self.batch, self.rows = cone, batch, cone.rows

    def scaling(self, s, z):
        out = np.full(self.cone.scaling_length(self.batch), np.nan)
        self.cone.nt_scaling_into(s, z, out, batch=self.batch)
        return out

    def vector(self, method, *args, **kw):
        out = np.full(self.rows * self.batch, np.nan)
        getattr(self.cone, method)(*args, out, batch=self.batch, **kw)
        return out

    def hessian(self, scaling, inverse=False):
        out = np.full(self.rows * self.rows * self.batch, np.nan)
        self.cone.nt_hessian_into(scaling, out, batch=self.batch, inverse=inverse)
        return out.reshape(self.batch, self.rows, self.rows)
