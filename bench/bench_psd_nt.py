"""PSD NT scaling in batches: the host's batched path against the same
formula through batched eigh in NumPy, and on a GPU the custom kernels, the
cuBLAS/cuSOLVER path and the formula through CuPy's or PyTorch's batched
eigh, for the H blocks and for the W blocks alone."""
import math

import numpy as np
from timing import best_time, gpu_arrays, report

from dravik.mirel.cones.cpp import _cpp_cuda as m

R2 = math.sqrt(2.0)


def svec_tables(n):
    """Index and factor tables: the svec position of each dense entry with
    its 1 / sqrt(2) factor, and for H = (W_ik W_jl + W_jk W_il) * factor the
    four index grids and the factor (r at (j, i), c at (l, k))."""
    rows, cols = np.tril_indices(n)
    position = np.zeros((n, n), np.int64)
    position[rows, cols] = position[cols, rows] = np.arange(len(rows))
    unpack = np.where(np.eye(n, dtype=bool), 1.0, 1.0 / R2)
    j, i = rows[:, None], cols[:, None]
    l, k = rows[None, :], cols[None, :]
    factor = np.where(k != l, 1.0 / R2, 0.5) * np.where(i != j, R2, 1.0)
    return position, unpack, (i, j, k, l), factor


def nt_w_formula(xp, s, z, tables):
    """W = S^-1/2 (S^1/2 Z S^1/2)^1/2 S^-1/2 of (batch, rows) svec arrays s
    and z through batched eigh; tables as svec_tables gives them, already in
    the array library."""
    position, unpack = tables[0], tables[1]
    big_s, big_z = s[:, position] * unpack, z[:, position] * unpack

    def powers(a, exponents):
        values, vectors = xp.linalg.eigh(a)
        vt = xp.swapaxes(vectors, -1, -2)
        return [(vectors * values[:, None, :] ** p) @ vt for p in exponents]

    half, inv_half = powers(big_s, (0.5, -0.5))
    (m_half,) = powers(half @ big_z @ half, (0.5,))
    return inv_half @ m_half @ inv_half


def nt_operator_formula(xp, s, z, tables, out, chunk):
    """H blocks into out (batch, rows, rows), `chunk` blocks at a time."""
    i, j, k, l = tables[2]
    factor = tables[3]
    for first in range(0, s.shape[0], chunk):
        w = nt_w_formula(xp, s[first:first + chunk], z[first:first + chunk], tables)
        out[first:first + chunk] = (w[:, i, k] * w[:, j, l] + w[:, j, k] * w[:, i, l]) * factor


def positive_definite(n, batch, rng, low, high):
    """(batch, rows) svec arrays of matrices with eigenvalues in [low, high]."""
    q, _ = np.linalg.qr(rng.standard_normal((batch, n, n)))
    a = (q * rng.uniform(low, high, (batch, 1, n))) @ np.swapaxes(q, 1, 2)
    rows, cols = np.tril_indices(n)
    return a[:, rows, cols] * np.where(rows == cols, 1.0, R2)


def pairs(n, batch, rng):
    return positive_definite(n, batch, rng, 0.5, 2.0), positive_definite(n, batch, rng, 0.2, 5.0)


def host_section(rng):
    batch = 1000
    for n in (3, 10, 30):
        cone = m.PsdConeCpp(n)
        s, z = pairs(n, batch, rng)
        flat_s, flat_z = s.ravel(), z.ravel()
        out = np.empty((batch, cone.rows, cone.rows))
        peer_out = np.empty_like(out)
        tables = svec_tables(n)
        chunk = max(1, 10_000_000 // cone.rows ** 2)
        ours = best_time(lambda: cone.nt_scaling_matrix_batch_into(flat_s, flat_z, out.ravel(),
                                                                   batch), repeat=3)
        peer = best_time(lambda: nt_operator_formula(np, s, z, tables, peer_out, chunk), repeat=3)
        np.testing.assert_allclose(out, peer_out, rtol=0, atol=1e-10 * np.abs(peer_out).max())
        report(f"PSD NT scaling host dim={n} batch={batch}", ours, peer, "numpy eigh", cone="PSD",
               operation="NT scaling batch", size=n)


def device_tables(gpu, n):
    position, unpack, grids, factor = svec_tables(n)
    to_index = lambda a: gpu.to_device(a, dtype=np.int64)  # noqa: E731
    return (to_index(position), gpu.to_device(unpack), tuple(map(to_index, grids)),
            gpu.to_device(factor))


def w_function(gpu, ds, dz, w, n, batch):
    from gpu_arrays import psd_w_function
    call = psd_w_function(m)
    return lambda: call(gpu.pointer(ds), gpu.pointer(dz), gpu.pointer(w), n, batch, 0, 0)


def gpu_section(rng):
    gpu, reason = gpu_arrays(m)
    if gpu is None:
        print(f"PSD NT scaling GPU section skipped: {reason}")
        return
    winners = []
    for n in (4, 8, 16, 32, 64, 128):
        cone = m.PsdConeCpp(n)
        rows = cone.rows
        slow = n >= 64
        timed = (lambda fn: gpu.timed(fn, repeat=3, number=1)) if slow else gpu.timed
        tables = device_tables(gpu, n)

        # H blocks: as many as keep the output near 320 MB.
        batch = min(10_000, max(1, 40_000_000 // rows ** 2))
        s, z = pairs(n, batch, rng)
        ds, dz = gpu.to_device(s), gpu.to_device(z)
        flat_s, flat_z = ds.reshape(-1), dz.reshape(-1)
        out = gpu.empty(rows * rows * batch)
        peer_out = gpu.empty(rows * rows * batch).reshape(batch, rows, rows)
        chunk = max(1, 10_000_000 // rows ** 2)
        times = {}
        if n <= 32:
            times["custom"] = timed(lambda: cone.nt_scaling_matrix_batch_custom_into(
                flat_s, flat_z, out, batch))
        times["library"] = timed(lambda: cone.nt_scaling_matrix_batch_cublas_into(
            flat_s, flat_z, out, batch))
        times[gpu.name] = timed(lambda: nt_operator_formula(gpu.xp, ds, dz, tables, peer_out,
                                                            chunk))
        for label in ("custom", "library"):
            if label in times:
                report(f"PSD NT scaling GPU H {label} dim={n} batch={batch}", times[label],
                       times[gpu.name], gpu.name, cone="PSD", operation=f"NT scaling H {label}",
                       size=n, where="gpu")
        best = min(times, key=times.get)
        winners.append(f"H dim={n}: {best}")

        # W blocks alone (the library path for these batches) against eigh.
        batch = 10_000 if n <= 32 else (1_000 if n == 64 else 100)
        s, z = pairs(n, batch, rng)
        ds, dz = gpu.to_device(s), gpu.to_device(z)
        w = gpu.empty(n * n * batch)
        ours = timed(w_function(gpu, ds, dz, w, n, batch))
        peer = timed(lambda: nt_w_formula(gpu.xp, ds, dz, tables))
        report(f"PSD NT scaling GPU W library dim={n} batch={batch}", ours, peer, gpu.name,
               cone="PSD", operation="NT scaling W library", size=n, where="gpu")
        winners.append(f"W dim={n}: {'library' if ours < peer else gpu.name}")
    print("fastest: " + "; ".join(winners))


def main():
    rng = np.random.default_rng(0)
    host_section(rng)
    gpu_section(rng)


if __name__ == "__main__":
    main()
