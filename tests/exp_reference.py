"""High-precision references (Python's decimal, 60 digits) for the
exponential cone's barrier, conjugate point and step lengths, and samplers
of interior pairs reaching close to both boundaries and far from the central
path.

K = closure{y > 0, y e^(x/y) <= z}; K* = closure{u < 0, -u e^(v/u) <= e w}."""
import decimal
import math

import numpy as np

CONTEXT = decimal.Context(prec=60, Emin=-99999, Emax=99999)
D = CONTEXT.create_decimal_from_float


def precise(fn):
    """Runs fn with CONTEXT as the decimal context (its operators too)."""
    def run(*args, **kw):
        with decimal.localcontext(CONTEXT):
            return fn(*args, **kw)
    return run


def _ln(a):
    return CONTEXT.ln(a)


def in_cone(p, dual):
    """Exact membership of the closed cone (of K* when dual), in decimal."""
    a, b, c = p
    if dual:
        if a < 0:
            return c > 0 and b / -a + _ln(c / -a) + 1 >= 0
        return a == 0 and b >= 0 and c >= 0
    if b > 0:
        return c > 0 and b * _ln(c / b) - a >= 0
    return b == 0 and a <= 0 and c >= 0


def barrier(q):
    x, y, z = q
    return -_ln(y * _ln(z / y) - x) - _ln(y) - _ln(z)


@precise
def gradient(p):
    """grad f by central differences at 60 digits (not the closed form)."""
    q = [D(float(c)) for c in p]
    step = decimal.Decimal("1e-25") * max(abs(c) for c in q)
    out = []
    for i in range(3):
        up, down = list(q), list(q)
        up[i] += step
        down[i] -= step
        out.append(float((barrier(up) - barrier(down)) / (2 * step)))
    return np.array(out)


@precise
def hessian(p):
    q = [D(float(c)) for c in p]
    step = decimal.Decimal("1e-15") * max(abs(c) for c in q)
    out = np.empty((3, 3))
    for i in range(3):
        for j in range(3):
            total = 0
            for si, sj, sign in ((1, 1, 1), (1, -1, -1), (-1, 1, -1), (-1, -1, 1)):
                r = list(q)
                r[i] += si * step
                r[j] += sj * step
                total += sign * barrier(r)
            out[i, j] = float(total / (4 * step * step))
    return out


@precise
def conjugate_point(d):
    """-grad f*(d) by bisection on log y of v = -u (log(z / y) - 1) + 1 / y with
    z = (1 - u y) / w (the other two equations solved for x and z)."""
    u, v, w = (D(float(c)) for c in d)

    def excess(t):  # decreasing in t = log y
        y = CONTEXT.exp(t)
        return -u * (_ln((1 / y - u) / w) - 1) + 1 / y - v

    lo, hi = D(-800.0), D(800.0)
    for _ in range(200):
        mid = (lo + hi) / 2
        lo, hi = (mid, hi) if excess(mid) > 0 else (lo, mid)
    y = CONTEXT.exp((lo + hi) / 2)
    z = (1 - u * y) / w
    return np.array([float(y * _ln(z / y) + 1 / u), float(y), float(z)])


@precise
def max_step(x, dx, dual, iterations=200):
    """sup{a >= 0 : x + a dx in the closed cone} by bisection, as a Decimal
    (math.inf when unbounded)."""
    x = [D(float(c)) for c in x]
    dx = [D(float(c)) for c in dx]

    def inside(a):
        return in_cone([x[i] + a * dx[i] for i in range(3)], dual)

    hi = D(1.0)
    while inside(hi):
        hi *= 2
        if hi > D(2.0) ** 1100:
            return math.inf
    lo = D(0.0)
    for _ in range(iterations):
        mid = (lo + hi) / 2
        lo, hi = (mid, hi) if inside(mid) else (lo, mid)
    return lo


# ------------------------------------------------------------ samplers

def primal_points(rng, k, margins=(-9, 0.5), scales=(-3, 3)):
    """Interior points of K: y log(z / y) - x = y * margin, margins
    log-uniform in 10^margins (1e-9: almost on the boundary), y log-uniform."""
    y = 10.0 ** rng.uniform(*scales, k)
    x = rng.uniform(-4, 4, k) * y
    z = y * np.exp(x / y + 10.0 ** rng.uniform(*margins, k))
    return np.stack([x, y, z], 1).ravel()


def dual_points(rng, k, margins=(-9, 0.5), scales=(-3, 3)):
    """Interior points of K*: log(w / a) + v / a + 1 = margin, a = -u."""
    a = 10.0 ** rng.uniform(*scales, k)
    v = rng.uniform(-4, 4, k) * a
    w = a * np.exp(-v / a - 1 + 10.0 ** rng.uniform(*margins, k))
    return np.stack([-a, v, w], 1).ravel()


def backward_error(h, a, b):
    """|H a - b| / (|H| |a| + |b|) per block (H: blocks x 3 x 3)."""
    a, b = a.reshape(-1, 3), b.reshape(-1, 3)
    r = np.einsum("kij,kj->ki", h, a) - b
    return np.linalg.norm(r, axis=1) / (np.linalg.norm(h, axis=(1, 2)) *
                                        np.linalg.norm(a, axis=1) + np.linalg.norm(b, axis=1))
