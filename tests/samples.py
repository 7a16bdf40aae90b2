"""Sample points and NumPy references that several test modules share: cone
points of every kind (interior, boundary, outside, with NaN) and the
reference rules they are checked against."""
import math

import numpy as np

# ------------------------------------------------------------ exponential

_exp = np.vectorize(math.exp, otypes=[np.float64])  # libm exp, as the module uses


def perspective(x, y):
    with np.errstate(all="ignore"):
        return y * _exp(np.clip(x / y, -745.0, 709.0))


def project_reference(v):
    x, y, z = v.reshape(-1, 3).T
    e = perspective(x, y)
    with np.errstate(invalid="ignore"):
        keep = np.where(y > 1e-8, z + 1e-8 >= e, np.where(x > 1e-8, False, z >= -1e-8))
        lifted = np.stack([x, y, np.where(keep, z, np.where(e > z, e, z))], 1)
        cleared = np.stack([np.where(x > 0, 0.0, x), np.zeros_like(y), np.where(z < 0, 0.0, z)], 1)
        return np.where((y > 0)[:, None], lifted, cleared).ravel()


def violation_reference(v):
    x, y, z = v.reshape(-1, 3).T
    with np.errstate(invalid="ignore", over="ignore"):
        d = perspective(x, y) - z
        outside = np.sqrt(np.where(x >= 0, x * x, 0.0) + y * y + np.where(z <= 0, z * z, 0.0))
        terms = np.where(y > 0, np.where(d > 0, d * d, 0.0), outside * outside)
    return terms


def sample_blocks(rng, k):
    """Blocks that reach every branch of the rules, a few with NaN."""
    x = rng.choice([-1.0, 1.0], k) * 10.0 ** rng.uniform(-10, 1, k)
    y = rng.choice([2.0, 0.3, 1.2e-8, 1e-9, 0.0, -0.7], k) * rng.uniform(0.5, 1.5, k)
    offset = rng.choice([-0.3, -2e-8, -5e-9, 0.0, 5e-9, 0.4], k)
    z = np.where(rng.random(k) < 0.7, np.nan_to_num(perspective(x, y), posinf=1e300) + offset,
                 rng.standard_normal(k))
    v = np.stack([x, y, z], 1).ravel()
    v[rng.random(3 * k) < 0.01] = np.nan
    return v


def interior_blocks(rng, k):
    x = rng.standard_normal(k)
    y = rng.uniform(0.5, 2.0, k)
    return np.stack([x, y, y * np.exp(x / y) + rng.uniform(0.1, 2.0, k)], 1).ravel()


# ------------------------------------------------------------ second-order

def soc_sample(kind, dim, rng):
    """A vector of the cone ('inside'), of its polar ('polar') or of neither."""
    x = rng.standard_normal(dim)
    r = np.linalg.norm(x[1:])
    x[0] = {"inside": 1.5 * r + 0.1, "polar": -1.5 * r - 0.1, "between": 0.3 * r}[kind]
    return x


def soc_projection(x, r):
    """The projection of x onto the cone, given the norm r of its tail."""
    t = x[0]
    if t >= r:
        return x.copy()
    if -t >= r:
        return np.zeros_like(x)
    a = (t + r) * 0.5
    out = x * (a / r if r > 0 else 0.0)
    out[0] = a
    return out


def soc_interior(n, rng, margin=0.5):
    x = rng.standard_normal(n)
    x[0] = np.linalg.norm(x[1:]) * (1 + margin) + 0.1
    return x


def soc_interior_batch(n, batch, rng):
    return [np.concatenate([soc_interior(n, rng, mg) for _ in range(batch)]) for mg in (0.5, 2.0)]


# ------------------------------------------------------------------- PSD

def svec(a):
    """The lower triangle of a row by row, off-diagonal entries times sqrt(2)."""
    rows, cols = np.tril_indices(a.shape[0])
    return a[rows, cols] * np.where(rows == cols, 1.0, math.sqrt(2.0))


def smat(x, n):
    rows, cols = np.tril_indices(n)
    a = np.zeros((n, n))
    a[rows, cols] = x / np.where(rows == cols, 1.0, math.sqrt(2.0))
    return np.tril(a) + np.tril(a, -1).T


def spd(n, rng, low=0.5, high=2.0):
    """A symmetric matrix with eigenvalues drawn from [low, high]."""
    q, _ = np.linalg.qr(rng.standard_normal((n, n)))
    a = (q * rng.uniform(low, high, n)) @ q.T
    return (a + a.T) / 2


def psd_pairs(n, batch, rng):
    """svec runs s and z of `batch` positive definite blocks of order n."""
    s = [svec(spd(n, rng)) for _ in range(batch)]
    z = [svec(spd(n, rng, 0.2, 5.0)) for _ in range(batch)]
    return np.concatenate(s or [np.empty(0)]), np.concatenate(z or [np.empty(0)])

