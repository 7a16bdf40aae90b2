"""Second-order NT scaling in batches: the host path against the same
Jordan-algebra formulas vectorised over the batch with NumPy, and on a GPU
the columns kernel, the cuBLAS path and the formulas in CuPy or PyTorch."""
import numpy as np
from timing import best_time, gpu_arrays, report

from dravik.mirel.cones.cpp import _cpp_cuda as m


def concatenate(xp, parts, axis):
    join = getattr(xp, "concatenate", None) or xp.cat
    return join(parts, axis)


def nt_scaling_formulas(xp, s, z, reflect):
    """W = P(s^1/2) P(G) P(s^-1/2), G = (P(s^-1/2) z)^1/2, for (batch, n)
    arrays s and z; reflect is diag(1, -1, ..., -1) in the same library.
    Returns the (batch, n, n) row-major matrices."""

    def tail_sq(x):
        return (x[:, 1:] * x[:, 1:]).sum(1)

    def power(x, p):
        r = xp.sqrt(tail_sq(x))
        l1, l2 = (x[:, 0] + r) ** p, (x[:, 0] - r) ** p
        k = xp.where(r > 0, (l1 - l2) * 0.5 / r, r * 0.0)
        return concatenate(xp, [((l1 + l2) * 0.5)[:, None], k[:, None] * x[:, 1:]], 1)

    def factors(a):
        head_sq, tail = a[:, 0] * a[:, 0], tail_sq(a)
        return head_sq + tail, head_sq - tail, 2.0 * a[:, 0]

    def quad_apply(a, v):
        """P(a) applied to every column of the (batch, n, cols) array v."""
        q, det, t = factors(a)
        d = xp.einsum("bi,bic->bc", a[:, 1:], v[:, 1:, :])
        head = q[:, None] * v[:, 0, :] + t[:, None] * d
        tail = (det[:, None, None] * v[:, 1:, :]
                + (t[:, None] * a[:, 1:])[:, :, None] * v[:, None, 0, :]
                + 2.0 * a[:, 1:, None] * d[:, None, :])
        return concatenate(xp, [head[:, None, :], tail], 1)

    a, b = power(s, -0.5), power(s, 0.5)
    g = power(quad_apply(a, z[:, :, None])[:, :, 0], 0.5)
    _, det_a, _ = factors(a)
    p_a = 2.0 * a[:, :, None] * a[:, None, :] - det_a[:, None, None] * reflect
    return quad_apply(b, quad_apply(g, p_a))


def interior_batch(dim, batch, rng):
    s = rng.standard_normal((batch, dim))
    z = rng.standard_normal((batch, dim))
    s[:, 0] = 1.5 * np.linalg.norm(s[:, 1:], axis=1) + 0.1
    z[:, 0] = 3.0 * np.linalg.norm(z[:, 1:], axis=1) + 0.1
    return s, z


def reflection(dim):
    r = -np.eye(dim)
    r[0, 0] = 1.0
    return r


def host_section(rng):
    dim, batch = 32, 10000
    cone = m.SecondOrderConeCpp(dim)
    s, z = interior_batch(dim, batch, rng)
    flat_s, flat_z = s.ravel(), z.ravel()
    out = np.empty(dim * dim * batch)
    reflect = reflection(dim)
    ours = best_time(lambda: cone.nt_scaling_matrix_batch_into(flat_s, flat_z, out, batch),
                     repeat=5)
    peer = best_time(lambda: nt_scaling_formulas(np, s, z, reflect), repeat=5)
    np.testing.assert_allclose(out.reshape(batch, dim, dim), nt_scaling_formulas(np, s, z, reflect),
                               rtol=1e-9, atol=1e-11)
    report(f"SOC NT scaling host dim={dim} batch={batch}", ours, peer, "numpy",
           cone="second-order", operation="NT scaling batch", size=dim)


def gpu_section(rng):
    gpu, reason = gpu_arrays(m)
    if gpu is None:
        print(f"SOC NT scaling GPU section skipped: {reason}")
        return
    xp, to_device, timed = gpu.xp, gpu.to_device, gpu.timed
    copy_rate = gpu.copy_bandwidth()
    print(f"device copy bandwidth {copy_rate / 1e9:.0f} GB/s (read + write)")
    batch = 10000
    for dim in (8, 32):
        cone = m.SecondOrderConeCpp(dim)
        s, z = interior_batch(dim, batch, rng)
        ds, dz = to_device(s), to_device(z)
        flat_s, flat_z = ds.reshape(-1), dz.reshape(-1)
        out = to_device(np.empty(dim * dim * batch))
        reflect = to_device(reflection(dim))
        nbytes = out.shape[0] * 8

        custom = timed(lambda: cone.nt_scaling_matrix_batch_custom_into(flat_s, flat_z, out, batch))
        cublas = timed(lambda: cone.nt_scaling_matrix_batch_cublas_into(flat_s, flat_z, out, batch))
        peer = timed(lambda: nt_scaling_formulas(xp, ds, dz, reflect))
        for label, ours in (("custom", custom), ("cublas", cublas)):
            report(f"SOC NT scaling GPU {label} dim={dim} batch={batch}", ours, peer, gpu.name,
                   cone="second-order", operation=f"NT scaling {label}", size=dim, where="gpu",
                   nbytes=nbytes, copy_rate=copy_rate)
            print(f"    output {nbytes / ours / 1e9:.1f} GB/s, "
                  f"{100 * nbytes / ours / copy_rate:.1f}% of the copy bandwidth")


def main():
    rng = np.random.default_rng(0)
    host_section(rng)
    gpu_section(rng)


if __name__ == "__main__":
    main()
