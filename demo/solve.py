"""The main job as a solve: a reference primal-dual interior-point solver whose
cone work runs on the module's solver kit, checked against CVXOPT.

    minimize c'x  subject to  G x + s = h,  A x = b,  s in K

K is a product of a zero cone, a nonnegative orthant, second-order cones and
PSD cones (PSD rows in svec form: the lower triangle row by row, off-diagonal
entries times sqrt(2)); `dims` = {'z': rows, 'l': rows, 'q': [dims], 's':
[orders]} in that row order. The method is the one CVXOPT's conelp documents:
the homogeneous self-dual embedding, Nesterov-Todd scaling, Mehrotra
predictor-corrector steps, the same starting point, step rule (0.99 of the
longest step), centering (sigma = (1 - alpha_affine)^3) and stopping tests,
so iteration counts are comparable.

Every cone operation (degree, identity, NT scaling, lam, Jordan product and
division, step lengths, W and W^-1, the KKT H block) is one kit call per
group of equal cones: the nonnegative rows as one item, all second-order
cones of one dimension as one batch, all PSD blocks of one order as one
batch. The KKT matrix [[0, A', G'], [A, 0, 0], [G, 0, -W^2]] has one SciPy
CSR pattern, built once; each iteration the kit writes -W^2 into its cone
blocks in place (the G and A entries of the same rows keep their values) and
SciPy's sparse LU factors it (a symmetric matrix's CSR arrays read as CSC are
the same matrix).

    python demo/solve.py [--scale S] [--seed K] [--device cpu|cuda|auto]
"""
import argparse
import math
import os
import sys
import time
from dataclasses import dataclass, field

import numpy as np
import scipy.sparse as sp
import scipy.sparse.linalg as spla

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kit_numpy  # noqa: E402
from dravik.mirel.cones.cpp import _cpp_cuda  # noqa: E402

# The cone classes, taken from here only. PSD runs on the NumPy stand-in of the kit until
# the module's PsdConeCpp has it; then this is the module's too and kit_numpy goes.
ZeroCone, NonnegativeCone, SecondOrderCone = (_cpp_cuda.ZeroConeCpp, _cpp_cuda.NonnegativeConeCpp,
                                              _cpp_cuda.SecondOrderConeCpp)
PsdCone = kit_numpy.PsdConeCpp
KIT_SOURCE = ("the module's kit (zero, nonnegative, second-order) and its NumPy stand-in "
              "demo/kit_numpy.py (PSD)")


def host_only(cls):
    """True for the stand-in's classes, which take NumPy arrays only."""
    return cls.__module__ == kit_numpy.__name__

STEP, EXPON = 0.99, 3


@dataclass
class Problem:
    c: np.ndarray
    G: sp.spmatrix
    h: np.ndarray
    dims: dict
    A: sp.spmatrix = None
    b: np.ndarray = None
    name: str = ""

    def __post_init__(self):
        self.dims = {"z": 0, "l": 0, "q": [], "s": [], **self.dims}
        self.G = sp.csr_matrix(self.G)
        n = self.c.size
        self.A = sp.csr_matrix((0, n)) if self.A is None else sp.csr_matrix(self.A)
        self.b = np.zeros(0) if self.b is None else np.asarray(self.b, float)

    def scaled(self, factor):
        """The same problem with every data entry times `factor` (x unchanged, s and the
        objective scaled, z unchanged)."""
        return Problem(self.c * factor, self.G * factor, self.h * factor, self.dims,
                       self.A * factor, self.b * factor, f"{self.name} x{factor:g}")


# ----------------------------------------------------------------- arrays


class HostArrays:
    name = "host"

    def put(self, a):
        return np.ascontiguousarray(a, dtype=np.float64)

    def get(self, a):
        return a

    def synchronize(self):
        pass


class DeviceArrays:
    """CuPy or PyTorch vectors for the cone work; x, y and the linear solve stay on the host."""

    def __init__(self, gpu):
        self.gpu, self.name = gpu, gpu.name

    def put(self, a):
        return self.gpu.to_device(a)

    def get(self, a):
        return self.gpu.to_host(a)

    def synchronize(self):
        self.gpu.synchronize()


# ----------------------------------------------------------------- cones


@dataclass
class Group:
    label: str
    cone: object
    batch: int
    offset: int     # first row in the cone vector
    size: int       # rows of the whole batch
    scaling: slice  # its part of the compact scaling buffer

    @property
    def rows(self):
        return slice(self.offset, self.offset + self.size)


class Cones:
    """The product cone as groups of equal cones, each one kit call per operation.

    Rows are reordered so that equal cones lie one after another: zero,
    nonnegative, second-order by dimension, PSD by order (stable); `perm[i]`
    is the caller's row of internal row i."""

    def __init__(self, dims, arrays, timer):
        self.arrays, self.timer = arrays, timer
        starts = np.cumsum([0, dims["z"], dims["l"]] + list(dims["q"])
                           + [k * (k + 1) // 2 for k in dims["s"]])
        blocks = [("zero", ZeroCone, dims["z"], 1, 0), ("nonnegative", NonnegativeCone,
                                                        dims["l"], 1, 1)]
        q0 = 2
        for i in np.argsort(dims["q"], kind="stable"):
            blocks.append(("second-order", SecondOrderCone, dims["q"][i], 1, q0 + i))
        for i in np.argsort(dims["s"], kind="stable"):
            blocks.append(("PSD", PsdCone, dims["s"][i], 1, q0 + len(dims["q"]) + i))
        self.perm = np.concatenate([np.arange(starts[k], starts[k + 1]) for *_, k in blocks]
                                   ).astype(np.int64)
        self.groups, offset, scal = [], 0, 0
        for label, cls, dim, _, _ in blocks:
            if dim == 0:
                continue
            last = self.groups[-1] if self.groups else None
            if last is not None and last.label == label and last.cone.dim == dim:
                last.batch += 1
            else:
                self.groups.append(Group(label, cls(dim), 1, offset, 0, slice(0)))
            offset += self.groups[-1].cone.rows
        for g in self.groups:
            g.size = g.cone.rows * g.batch
            g.scaling = slice(scal, scal + g.cone.scaling_length(g.batch))
            scal = g.scaling.stop
        self.rows, self.scaling_length = offset, scal
        self.zero = self.groups[0].rows if self.groups and self.groups[0].label == "zero" \
            else slice(0)
        self.degree = sum(g.cone.degree() * g.batch for g in self.groups)

    def describe(self):
        parts = [f"{g.batch} {g.label} of {'order' if g.label == 'PSD' else 'dim'} {g.cone.dim}"
                 if g.batch > 1 or g.label in ("second-order", "PSD") else f"{g.label} ({g.size})"
                 for g in self.groups]
        return f"{self.rows} cone rows, degree {self.degree}: " + ", ".join(parts)

    def _timed(self, fn):
        start = time.perf_counter()
        result = fn()
        self.arrays.synchronize()
        self.timer["module"] += time.perf_counter() - start
        return result

    def _each(self, call, skip_zero=True):
        def run():
            for g in self.groups:
                if not (skip_zero and g.label == "zero"):
                    call(g)
        self._timed(run)

    def zeros(self):
        return self.arrays.put(np.zeros(self.rows))

    def identity(self):
        e = self.zeros()
        self._each(lambda g: g.cone.identity_into(e[g.rows], g.batch), skip_zero=False)
        return e

    def max_step(self, x, dx):
        """Largest alpha with x + alpha dx in K (inf when unbounded)."""
        return self._timed(lambda: min([g.cone.max_step(x[g.rows], dx[g.rows], g.batch)
                                        for g in self.groups] + [math.inf]))

    def scaling(self, s, z):
        """NT scaling of every cone into a new compact buffer."""
        w = self.arrays.put(np.empty(self.scaling_length))
        self._each(lambda g: g.cone.nt_scaling_into(s[g.rows], z[g.rows], w[g.scaling], g.batch),
                   skip_zero=False)
        return w

    def lam(self, w):
        out = self.zeros()
        self._each(lambda g: g.cone.nt_scaled_point_into(w[g.scaling], out[g.rows], g.batch))
        return out

    def apply(self, w, x, inverse=False):
        out = self.zeros()
        self._each(lambda g: g.cone.nt_apply_into(w[g.scaling], x[g.rows], out[g.rows], g.batch,
                                                  inverse))
        return out

    def product(self, x, y):
        out = self.zeros()
        self._each(lambda g: g.cone.jordan_product_into(x[g.rows], y[g.rows], out[g.rows],
                                                        g.batch))
        return out

    def divide(self, lam, v):
        out = self.zeros()
        self._each(lambda g: g.cone.jordan_divide_into(lam[g.rows], v[g.rows], out[g.rows],
                                                       g.batch))
        return out

    def fill_kkt(self, w, indptr, indices, values, row_offset):
        """-W^2 (the inverse of H) into each cone's diagonal block of the KKT values."""
        self._each(lambda g: g.cone.nt_hessian_csr_values_into(
            w[g.scaling], indptr, indices, values, row_offset + g.offset, g.batch, True, -1.0),
            skip_zero=False)

    def block_pattern(self):
        """(row, col) of every entry the cones' H blocks can make nonzero, in cone rows."""
        r, c = [], []
        for g in self.groups:
            n = g.cone.rows
            if g.label in ("zero", "nonnegative"):
                k = np.arange(g.size) + g.offset
                r.append(k), c.append(k)
                continue
            lr, lc = np.meshgrid(np.arange(n), np.arange(n), indexing="ij")
            base = g.offset + n * np.arange(g.batch)[:, None]
            r.append((lr.ravel() + base).ravel()), c.append((lc.ravel() + base).ravel())
        return np.concatenate(r), np.concatenate(c)


# ----------------------------------------------------------------- KKT


class Kkt:
    """[[0, A', G'], [A, 0, 0], [G, 0, -W^2]]: one pattern, cone blocks refreshed in place."""

    def __init__(self, A, G, cones, arrays, timer, refinement):
        self.n, self.p, self.m = G.shape[1], A.shape[0], G.shape[0]
        self.cones, self.timer, self.refinement = cones, timer, refinement
        br, bc = cones.block_pattern()
        off = self.n + self.p
        block = sp.coo_matrix((np.ones(br.size), (br + off, bc + off)), shape=(off + self.m,) * 2)
        Gc = sp.coo_matrix(G)
        Ac = sp.coo_matrix(A)
        rows = np.concatenate([Ac.row + self.n, Ac.col, Gc.row + off, Gc.col, block.row])
        cols = np.concatenate([Ac.col, Ac.row + self.n, Gc.col, Gc.row + off, block.col])
        vals = np.concatenate([Ac.data, Ac.data, Gc.data, Gc.data, np.zeros(br.size)])
        K = sp.csr_matrix((vals, (rows, cols)), shape=block.shape)   # duplicates summed
        K.sort_indices()
        self.indptr32, self.indices32 = K.indptr, K.indices
        self.indptr = K.indptr.astype(np.int64)
        self.indices = K.indices.astype(np.int64)
        self.values = K.data.copy()
        self.arrays = arrays
        self.device = None
        if isinstance(arrays, DeviceArrays):
            g = arrays.gpu
            self.device = (g.to_device(self.indptr, np.int64), g.to_device(self.indices, np.int64),
                           g.to_device(self.values))
        self.row_offset = off

    def matrix(self):
        return sp.csr_matrix((self.values, self.indices32, self.indptr32),
                             shape=(self.row_offset + self.m,) * 2)

    def refresh(self, w):
        if self.device is None:
            self.cones.fill_kkt(w, self.indptr, self.indices, self.values, self.row_offset)
        else:
            indptr, indices, values = self.device
            self.cones.fill_kkt(w, indptr, indices, values, self.row_offset)
            self.values[:] = self.arrays.get(values)
        start = time.perf_counter()
        K = sp.csc_matrix((self.values, self.indices32, self.indptr32), shape=(self.row_offset
                                                                              + self.m,) * 2)
        self.lu = spla.splu(K, permc_spec="MMD_AT_PLUS_A")
        self.timer["linear"] += time.perf_counter() - start

    def solve(self, rx, ry, rz):
        start = time.perf_counter()
        rhs = np.concatenate([rx, ry, rz])
        u = self.lu.solve(rhs)
        K = self.matrix()
        for _ in range(self.refinement):
            u += self.lu.solve(rhs - K @ u)
        self.timer["linear"] += time.perf_counter() - start
        return u[:self.n], u[self.n:self.row_offset], u[self.row_offset:]


# ----------------------------------------------------------------- solver


@dataclass
class Result:
    status: str          # optimal, primal infeasible, dual infeasible, unknown
    x: np.ndarray        # the caller's row order; certificates when infeasible
    y: np.ndarray
    s: np.ndarray
    z: np.ndarray
    primal_objective: float
    dual_objective: float
    iterations: int
    log: list = field(default_factory=list)
    times: list = field(default_factory=list)   # per step: (module, linear solve, rest) seconds
    kkt: object = None


def centering_count(cones, rule):
    """What mu divides s'z + tau kappa by, less one. "degree": the barrier degree from the
    kit (one per second-order cone). "cvxopt": CVXOPT's count, in which a second-order cone
    counts its rows; with it the iterates are CVXOPT's to rounding."""
    if rule == "degree":
        return cones.degree
    return sum((g.size if g.label == "second-order" else g.cone.degree() * g.batch)
               for g in cones.groups)


def solve(problem, abstol=1e-7, reltol=1e-6, feastol=1e-7, max_iterations=100, refinement=1,
          centering="cvxopt", arrays=None, out=None):
    """Solves `problem`; returns a Result. `out` (a callable) gets the iteration log."""
    arrays = arrays or HostArrays()
    timer = {"module": 0.0, "linear": 0.0}
    cones = Cones(problem.dims, arrays, timer)
    G, h = problem.G[cones.perm], problem.h[cones.perm]
    A, b, c = problem.A, problem.b, problem.c
    n, p, m = c.size, b.size, h.size
    zero, cone_rows = cones.zero, slice(cones.zero.stop, m)
    kkt = Kkt(A, G, cones, arrays, timer, refinement)
    put, get, norm = arrays.put, arrays.get, np.linalg.norm
    count = centering_count(cones, centering)
    # Residual scales as CVXOPT sees the problem (zero-cone rows are its equality rows).
    resx0 = max(1.0, norm(c))
    resy0 = max(1.0, math.hypot(norm(b), norm(h[zero])))
    resz0 = max(1.0, norm(h[cone_rows]))

    def scaled_norms(ry, rz):
        return max(math.hypot(norm(ry), norm(rz[zero])) / resy0, norm(rz[cone_rows]) / resz0)

    # Start: least-squares x (and s = h - G x) and least-norm z with W = I, moved inside K.
    e = cones.identity()
    kkt.refresh(cones.scaling(e, e))
    x, _, s = kkt.solve(np.zeros(n), b, h)
    s = -s
    s[zero] = 0.0
    _, y, z = kkt.solve(-c, np.zeros(p), np.zeros(m))
    s, z = shift_inside(cones, put(s), e), shift_inside(cones, put(z), e)
    tau = kappa = 1.0

    log = out or (lambda line: None)
    log(f"{'it':>3} {'pcost':>13} {'dcost':>13} {'gap':>8} {'pres':>8} {'dres':>8} {'mu':>8} "
        f"{'step':>6} {'sigma':>7} {'module ms':>10} {'solve ms':>9} {'rest ms':>8}")
    result = Result("unknown", None, None, None, None, math.nan, math.nan, 0, kkt=kkt)
    last, step, sigma = (0.0, 0.0, time.perf_counter()), math.nan, math.nan
    for it in range(max_iterations + 1):
        zh, sh = get(z), get(s)
        rx = A.T @ y + G.T @ zh + c * tau
        ry = b * tau - A @ x
        rz = sh + G @ x - h * tau
        rt = kappa + c @ x + b @ y + h @ zh
        cx, bh, gap = c @ x, b @ y + h @ zh, sh @ zh
        pcost, dcost = cx / tau, -bh / tau
        pres, dres = scaled_norms(ry, rz) / tau, norm(rx) / resx0 / tau
        gap_n = gap / tau ** 2
        relgap = gap_n / -pcost if pcost < 0 else (gap_n / dcost if dcost > 0 else math.inf)
        pinf = norm(A.T @ y + G.T @ zh) / resx0 / -bh if bh < 0 else math.inf
        dinf = scaled_norms(A @ x, G @ x + sh) / -cx if cx < 0 else math.inf
        mu = (gap + tau * kappa) / (count + 1)
        now = (timer["module"], timer["linear"], time.perf_counter())
        row = (f"{it:>3} {pcost:13.6e} {dcost:13.6e} {gap_n:8.1e} {pres:8.1e} {dres:8.1e} "
               f"{mu:8.1e} {step:6.3f} {sigma:7.1e}")
        if it:
            module, linear = now[0] - last[0], now[1] - last[1]
            result.times.append((module, linear, now[2] - last[2] - module - linear))
            row += " {:10.2f} {:9.2f} {:8.2f}".format(*(1e3 * t for t in result.times[-1]))
        last = now
        result.log.append(row)
        log(row)
        if pres <= feastol and dres <= feastol and (gap_n <= abstol or relgap <= reltol):
            result.status, scale = "optimal", tau
        elif pinf <= feastol:
            result.status, scale = "primal infeasible", -bh
        elif dinf <= feastol:
            result.status, scale = "dual infeasible", -cx
        if result.status != "unknown" or it == max_iterations:
            break
        try:
            step, sigma, (x, y, s, z, tau, kappa) = newton_step(
                cones, kkt, (c, b, h), (x, y, s, z, tau, kappa), (rx, ry, rz, rt), mu)
        except (RuntimeError, ArithmeticError) as error:   # singular KKT matrix, lost interior
            log(f"stopped: {error}")
            break
    if result.status == "unknown":
        scale = tau
    back = np.empty(m, dtype=np.int64)
    back[cones.perm] = np.arange(m)
    result.x, result.y = x / scale, y / scale
    result.s, result.z = get(s)[back] / scale, get(z)[back] / scale
    result.primal_objective, result.dual_objective, result.iterations = pcost, dcost, it
    return result


def shift_inside(cones, v, e):
    """v when lambda_min(v) > 1e-8 max(1, |v|), else v + (1 - lambda_min(v)) e."""
    floor = 1e-8 * max(1.0, float(np.linalg.norm(cones.arrays.get(v))))
    # e + a (v - floor e) leaves K for some a > 0 exactly when lambda_min(v) < floor, at
    # a = 1 / (floor - lambda_min(v)).
    reach = cones.max_step(e, v - floor * e)
    return v if math.isinf(reach) else v + (1.0 + 1.0 / reach - floor) * e


def newton_step(cones, kkt, data, point, residuals, mu):
    """One predictor-corrector step; returns (step, sigma, the new point)."""
    (c, b, h), (x, y, s, z, tau, kappa), (rx, ry, rz, rt) = data, point, residuals
    get, put = cones.arrays.get, cones.arrays.put
    w = cones.scaling(s, z)
    lam = cones.lam(w)
    kkt.refresh(w)
    # The embedding's (c, b, h) column, eliminated once for both directions.
    vx, vy, vz = kkt.solve(c, -b, -h)
    pv = c @ vx + b @ vy + h @ vz
    lam2 = cones.product(lam, lam)

    def direction(rc, rk, keep):
        """The Newton direction for lam o (ds^ + dz^) = rc, kappa dtau + tau dkappa = rk, and
        the linear residuals times `keep`; ds^ = W^-1 ds and dz^ = W dz are the scaled ones."""
        q = cones.divide(lam, rc)
        f = 1.0 - keep
        ux, uy, uz = kkt.solve(-f * rx, f * ry, -f * rz - get(cones.apply(w, q)))
        dtau = (c @ ux + b @ uy + h @ uz + f * rt + rk / tau) / (pv + kappa / tau)
        dx, dy, dz = ux - dtau * vx, uy - dtau * vy, put(uz - dtau * vz)
        dzs = cones.apply(w, dz)
        return (dx, dy, dz, dtau, (rk - kappa * dtau) / tau), q - dzs, dzs

    def longest(dss, dzs, dtau, dkappa):
        """Largest step keeping s, z (through lam + a ds^, lam + a dz^), tau, kappa inside."""
        alpha = min(cones.max_step(lam, dss), cones.max_step(lam, dzs))
        for v, dv in ((tau, dtau), (kappa, dkappa)):
            alpha = min(alpha, -v / dv) if dv < 0 else alpha
        return alpha

    (_, _, _, dtau_a, dkappa_a), dss_a, dzs_a = direction(-lam2, -tau * kappa, 0.0)
    sigma = (1.0 - min(1.0, longest(dss_a, dzs_a, dtau_a, dkappa_a))) ** EXPON
    rc = -lam2 + sigma * mu * cones.identity() - cones.product(dss_a, dzs_a)
    rk = -tau * kappa + sigma * mu - dtau_a * dkappa_a
    (dx, dy, dz, dtau, dkappa), dss, dzs = direction(rc, rk, sigma)
    step = min(1.0, STEP * longest(dss, dzs, dtau, dkappa))
    ds = cones.apply(w, dss)
    ds[cones.zero] = 0.0
    return step, sigma, (x + step * dx, y + step * dy, s + step * ds, z + step * dz,
                         tau + step * dtau, kappa + step * dkappa)


# ----------------------------------------------------------------- CVXOPT


def svec_to_vec(order):
    """The sparse map from svec coordinates to CVXOPT's column-major full matrix."""
    r, cidx = np.tril_indices(order)
    k = np.arange(r.size)
    off = r != cidx
    rows = np.concatenate([r + cidx * order, (cidx + r * order)[off]])
    cols = np.concatenate([k, k[off]])
    vals = np.concatenate([np.where(off, 1 / math.sqrt(2.0), 1.0), np.full(off.sum(),
                                                                            1 / math.sqrt(2.0))])
    return sp.csr_matrix((vals, (rows, cols)), shape=(order * order, r.size))


def to_cvxopt(problem):
    """(c, G, h, dims, A, b) in CVXOPT's form: zero-cone rows become equality rows, PSD rows
    go from svec to the full column-major matrix."""
    from cvxopt import matrix, spmatrix
    d = problem.dims
    z, rest = d["z"], slice(d["z"], None)
    psd0 = d["z"] + d["l"] + sum(d["q"])
    maps = [sp.identity(psd0 - z)] + [svec_to_vec(k) for k in d["s"]]
    T = sp.block_diag(maps, format="csr")
    G = (T @ problem.G[rest]).tocoo()
    h = T @ problem.h[rest]
    A = sp.vstack([problem.A, problem.G[:z]]).tocoo()
    b = np.concatenate([problem.b, problem.h[:z]])

    def spm(M):
        return spmatrix(M.data.tolist(), M.row.tolist(), M.col.tolist(), M.shape)

    dims = {"l": d["l"], "q": list(map(int, d["q"])), "s": list(map(int, d["s"]))}
    return (matrix(problem.c), spm(G), matrix(h), dims, spm(A) if A.shape[0] else None,
            matrix(b) if b.size else None)


def cvxopt_solve(problem, **options):
    """CVXOPT's conelp on the same data: its result dict, or None without CVXOPT."""
    try:
        from cvxopt import solvers
    except ImportError:
        return None
    c, G, h, dims, A, b = to_cvxopt(problem)
    opts = {"show_progress": False, **options}
    return solvers.conelp(c, G, h, dims, A, b, options=opts)


# ----------------------------------------------------------------- demo problem


def demo_problem(scale=1.0, seed=7):
    """A robust long-only portfolio: maximise expected return minus a factor-risk penalty,
    fully invested, position limits (LP rows), uncertain exposure limits on random asset
    groups with ellipsoidal uncertainty (one second-order cone each), and sector risk limits
    written as LMIs [[r, (R x_S)'], [R x_S, r I]] >= 0 (PSD blocks)."""
    rng = np.random.default_rng(seed)
    n = max(8, int(200 * scale))              # assets
    groups = max(4, int(300 * scale))         # uncertain exposure constraints
    sectors = max(2, int(6 * scale))
    k = 5                                     # risk factors
    mu_ret = rng.uniform(0.02, 0.12, n)
    F = rng.standard_normal((n, k)) * 0.1
    # variables: x (n), t (risk); minimise -mu'x + 2 t
    c = np.concatenate([-mu_ret, [2.0]])
    rows, h, q = [], [], []
    rows.append(sp.hstack([-sp.identity(n), sp.csr_matrix((n, 1))]))        # x >= 0
    h.append(np.zeros(n))
    rows.append(sp.hstack([sp.identity(n), sp.csr_matrix((n, 1))]))         # x <= cap
    h.append(np.full(n, max(0.05, 3.0 / n)))
    l_rows = 2 * n
    # ||F'x|| <= t
    risk = np.zeros((k + 1, n + 1))
    risk[0, n] = -1.0
    risk[1:, :n] = -F.T
    rows.append(sp.csr_matrix(risk))
    h.append(np.zeros(k + 1))
    q.append(k + 1)
    for _ in range(groups):
        size = int(rng.integers(3, 9))
        members = rng.choice(n, size, replace=False)
        dim = int(rng.integers(3, 7))
        P = rng.standard_normal((dim - 1, size)) * 0.05
        a = rng.uniform(0.5, 1.5, size)
        block = np.zeros((dim, n + 1))
        block[0, members] = a                  # a'x_S + ||P x_S|| <= bound
        block[1:, members] = -P
        rows.append(sp.csr_matrix(block))
        at_equal = (a.sum() + np.linalg.norm(P.sum(1))) / n   # its value at equal weights
        bound = max(0.35 + 0.1 * rng.random(), 1.5 * at_equal)
        h.append(np.concatenate([[bound], np.zeros(dim - 1)]))
        q.append(dim)
    orders = []
    for _ in range(sectors):
        order = int(rng.integers(4, 9))
        members = rng.choice(n, order - 1, replace=False)
        R = rng.standard_normal((order - 1, order - 1)) * 0.2
        r = max(0.02, 1.5 * np.linalg.norm(R.sum(1)) / n)   # slack at equal weights
        # S = [[r, v'], [v, r I]] with v = R x_S: svec rows (i, j), i >= j, row by row
        block = np.zeros((order * (order + 1) // 2, n + 1))
        hb = np.zeros(order * (order + 1) // 2)
        for idx, (i, j) in enumerate(zip(*np.tril_indices(order))):
            if i == j:
                hb[idx] = r
            elif j == 0:
                block[idx, members] = -math.sqrt(2.0) * R[i - 1]
        rows.append(sp.csr_matrix(block))
        h.append(hb)
        orders.append(order)
    A = sp.csr_matrix(np.concatenate([np.ones(n), [0.0]])[None, :])
    return Problem(c, sp.vstack(rows, format="csr"), np.concatenate(h),
                   {"l": l_rows, "q": q, "s": orders}, A, np.ones(1), "robust portfolio")


# ----------------------------------------------------------------- main


def device_arrays(choice, cones):
    """(arrays, where) for --device: CuPy or PyTorch arrays when asked for (or, with auto,
    when usable) and every cone class of the problem takes them."""
    if choice == "cpu":
        return HostArrays(), "host arrays (--device cpu)"
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
    from gpu_arrays import gpu_arrays
    gpu, reason = gpu_arrays(_cpp_cuda)
    stand_in = sorted({g.label for g in cones.groups if host_only(type(g.cone))})
    if gpu is not None and stand_in:
        gpu, reason = None, f"the {', '.join(stand_in)} cones run on the NumPy stand-in"
    if gpu is None:
        if choice == "cuda":
            raise SystemExit(f"--device cuda: {reason}")
        return HostArrays(), f"host arrays ({reason})"
    return DeviceArrays(gpu), f"{gpu.name} arrays on a CUDA device"


def run(scale=1.0, seed=7, device="auto", out=print):
    problem = demo_problem(scale, seed)
    cones = Cones(problem.dims, HostArrays(), {"module": 0.0})
    arrays, where = device_arrays(device, cones)
    out(f"problem: {problem.name}, {problem.c.size} variables, {problem.b.size} equality, "
        f"{cones.describe()}")
    out(f"cone work: {KIT_SOURCE} on {where}")
    start = time.perf_counter()
    result = solve(problem, arrays=arrays, out=out)
    wall = time.perf_counter() - start
    module, linear, rest = (sum(t[i] for t in result.times) for i in range(3))
    out(f"status: {result.status} after {result.iterations} iterations, optimal value "
        f"{result.primal_objective:.10g} (dual {result.dual_objective:.10g})")
    out(f"time: {wall:.2f} s: module {module:.2f} s, linear solve {linear:.2f} s, "
        f"rest {rest:.2f} s")
    start = time.perf_counter()
    reference = cvxopt_solve(problem)
    if reference is None:
        out("CVXOPT: not importable, no comparison")
        return result, None
    gap = abs(reference["primal objective"] - result.primal_objective) / max(
        1.0, abs(reference["primal objective"]))
    out(f"CVXOPT: {reference['status']} after {reference['iterations']} iterations "
        f"({time.perf_counter() - start:.2f} s), optimal value "
        f"{reference['primal objective']:.10g} (relative difference {gap:.1e})")
    return result, reference


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scale", type=float, default=1.0, help="problem size factor")
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--device", choices=["cpu", "cuda", "auto"], default="auto")
    args = parser.parse_args(argv)
    result, _ = run(args.scale, args.seed, args.device)
    return 0 if result.status == "optimal" else 1


if __name__ == "__main__":
    raise SystemExit(main())
