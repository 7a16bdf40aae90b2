"""The exponential cone's solver kit on 10^5 blocks (host, one OpenMP thread
and the default team) against NumPy evaluating the same formulas vectorised
over the blocks: the primal-dual scaling with its dense H and H^-1 blocks
(nt_scaling_into + nt_hessian_into against the shadow points, the update
and its inverse in NumPy), and the step lengths on K and K* (the same
bracketing iteration, a fixed number of rounds, in NumPy). Timed in
alternation, best of N; ratio = NumPy / ours (above 1: we are faster)."""
import ctypes
import os
import sys

import numpy as np
import timing
from timing import best_times_interleaved

from dravik.mirel.cones.cpp import _cpp_cuda as m

BLOCKS = 10**5


def openmp():
    lib = ctypes.CDLL("libgomp.so.1")
    lib.omp_get_max_threads.restype = ctypes.c_int
    return lib


def pairs(rng, n):
    y = 10.0 ** rng.uniform(-2, 2, n)
    x = rng.uniform(-3, 3, n) * y
    s = np.stack([x, y, y * np.exp(x / y + 10.0 ** rng.uniform(-6, 0.5, n))], 1)
    a = 10.0 ** rng.uniform(-2, 2, n)
    v = rng.uniform(-3, 3, n) * a
    z = np.stack([-a, v, a * np.exp(-v / a - 1 + 10.0 ** rng.uniform(-6, 0.5, n))], 1)
    return s, z


# ------------------------------------------------------------ NumPy peers

def np_primal(s):
    x, y, z = s.T
    l = np.log(z / y)
    return x, y, z, l, y * l - x


def np_scaling(s, z):
    """(H, H^-1) per block: the update in the basis (z, dz, n) and its dual basis."""
    x, y, w, l, psi = np_primal(s)
    zt = -np.stack([1 / psi, -((l - 1) / psi + 1 / y), -((y / w) / psi + 1 / w)], 1)
    a = -z[:, 0]
    delta = np.log(z[:, 2] / a) + z[:, 1] / a + 1
    sig = np.where(delta <= np.e, 0.5 * delta, np.log(delta))
    for _ in range(8):  # Newton from the right; 8 rounds reach rounding here
        sig = sig - (np.expm1(sig) + sig - delta) / (np.exp(sig) + 1)
    em = np.expm1(sig)
    py = 1 / (a * em)
    st = np.stack([py * (np.log(a / z[:, 2]) + sig) - 1 / a, py, np.exp(sig) / (em * z[:, 2])], 1)
    dot = lambda p, q: np.einsum("ki,ki->k", p, q)  # noqa: E731
    sz = dot(s, z)
    mu = sz / 3
    ds, dz = s - mu[:, None] * st, z - mu[:, None] * zt
    dz -= zt * (dot(dz, s) / dot(zt, s))[:, None]
    n = np.cross(s, ds)
    den = -mu * dot(dz, st)
    P, Q = y * (n[:, 1] + n[:, 0] * (l - 1)), w * n[:, 2] + y * n[:, 0]
    nfn = n[:, 0] ** 2 * psi ** 2 + (psi * (P * P + Q * Q) + y * (P + Q) ** 2) / (psi + 2 * y)
    ds -= st * (dot(ds, z) / dot(st, z))[:, None]
    b1 = ds / dot(ds, dz)[:, None]
    b2 = np.cross(z, dz)
    b2 /= dot(b2, n)[:, None]
    outer = lambda p: p[:, :, None] * p[:, None, :]  # noqa: E731
    D = [1 / sz, 1 / den, mu / nfn]
    H = outer(z) * D[0][:, None, None] + outer(dz) * D[1][:, None, None] + \
        outer(n) * D[2][:, None, None]
    Hi = outer(s / sz[:, None]) / D[0][:, None, None] + outer(b1) / D[1][:, None, None] + \
        outer(b2) / D[2][:, None, None]
    return H, Hi


def np_max_step(x, dx, dual, rounds=40):
    """The step's bracketing iteration vectorised: linear bounds, the ray
    end, then Newton from the right and the chord from the left."""
    if dual:
        y0, dy, z0, dz, l0, dl, c = -x[:, 0], -dx[:, 0], x[:, 2], dx[:, 2], x[:, 1], dx[:, 1], 1.0
    else:
        y0, dy, z0, dz, l0, dl, c = x[:, 1], dx[:, 1], x[:, 2], dx[:, 2], -x[:, 0], -dx[:, 0], 0.0

    def phi(a):
        yy, zz = y0 + a * dy, z0 + a * dz
        with np.errstate(all="ignore"):
            ll = np.log(zz / yy) + c
            f = np.where((yy > 0) & (zz > 0), yy * ll + l0 + a * dl, -np.inf)
            return f, dy * (ll - 1) + yy * dz / zz + dl

    with np.errstate(divide="ignore", invalid="ignore"):
        ay = np.where(dy < 0, -y0 / dy, np.inf)
        az = np.where(dz < 0, -z0 / dz, np.inf)
        lo, hi = np.zeros_like(y0), np.minimum(ay, az)
        flo, dlo = phi(lo)
        grow = ~np.isfinite(hi)
        hi = np.where(grow, np.where(dlo < 0, -flo / dlo, 1.0), hi)
        for _ in range(60):  # unbounded brackets grow until phi < 0
            f, _ = phi(hi)
            grow &= f >= 0
            if not grow.any():
                break
            hi = np.where(grow, 16 * hi, hi)
        fhi, dhi = phi(hi)
        for _ in range(rounds):
            newton = np.where(np.isfinite(fhi) & (dhi < 0), hi - fhi / dhi, 0.5 * (lo + hi))
            chord = np.where(np.isfinite(fhi), lo + flo * (hi - lo) / (flo - fhi), newton)
            for a in (newton, chord):
                a = np.where((a > lo) & (a < hi), a, 0.5 * (lo + hi))
                f, d = phi(a)
                inside = f >= 0
                lo, flo = np.where(inside, a, lo), np.where(inside, f, flo)
                hi, fhi, dhi = (np.where(inside, hi, a), np.where(inside, fhi, f),
                                np.where(inside, dhi, d))
        end = (ay <= az) & (l0 + ay * dl >= 0)
    return np.min(np.where(end, ay, lo))


# ------------------------------------------------------------ timing

def cases(rng):
    s, z = pairs(rng, BLOCKS)
    dx = rng.standard_normal((BLOCKS, 3)) * np.abs(s)
    dz = rng.standard_normal((BLOCKS, 3)) * np.abs(z)
    cone = m.ExponentialConeCpp(1)
    sf, zf, dxf, dzf = (a.ravel() for a in (s, z, dx, dz))
    sc = np.empty(cone.scaling_length(BLOCKS))
    h, hi = np.empty(9 * BLOCKS), np.empty(9 * BLOCKS)

    def ours_scaling():
        cone.nt_scaling_into(sf, zf, sc, batch=BLOCKS)
        cone.nt_hessian_into(sc, h, batch=BLOCKS)
        cone.nt_hessian_into(sc, hi, batch=BLOCKS, inverse=True)

    ours_scaling()
    H, Hi = np_scaling(s, z)
    assert np.allclose(h.reshape(-1, 3, 3), H, rtol=1e-8, atol=0)
    for dual, x, d in ((False, sf, dxf), (True, zf, dzf)):
        step = cone.max_step_dual if dual else cone.max_step
        ref = np_max_step(x.reshape(-1, 3), d.reshape(-1, 3), dual)
        assert abs(step(x, d, batch=BLOCKS) - ref) <= 1e-6 * ref  # ours: moved off by its bound
    return [
        ("scaling + H + H^-1", ours_scaling, lambda: np_scaling(s, z)),
        ("max_step", lambda: cone.max_step(sf, dxf, batch=BLOCKS),
         lambda: np_max_step(s, dx, False)),
        ("max_step_dual", lambda: cone.max_step_dual(zf, dzf, batch=BLOCKS),
         lambda: np_max_step(z, dz, True)),
    ]


def main(argv=()):
    omp = openmp()
    default = omp.omp_get_max_threads()
    print(f"exponential kit: {BLOCKS} blocks, default team {default} threads on "
          f"{os.cpu_count()} CPUs")
    work = cases(np.random.default_rng(0))
    try:
        for threads in sorted({1, default}):
            omp.omp_set_num_threads(threads)
            for name, ours, peer in work:
                t_ours, t_peer = best_times_interleaved([ours, peer], repeat=5)
                label = f"exponential {name} blocks={BLOCKS}"
                print(f"{label:<48} T={threads}  ours {t_ours * 1e3:8.2f} ms  numpy "
                      f"{t_peer * 1e3:8.2f} ms  x{t_peer / t_ours:6.2f}", flush=True)
                timing.RESULTS.append({
                    "label": f"{label} T={threads}", "cone": "exponential", "operation": name,
                    "size": BLOCKS, "where": f"host T={threads}", "ours_s": t_ours,
                    "peer_s": t_peer, "peer": "numpy", "ratio": t_peer / t_ours, "bytes": None,
                    "copy_share": None})
    finally:
        omp.omp_set_num_threads(default)


if __name__ == "__main__":
    main(sys.argv[1:])
