"""Exponential-cone NT scaling: the host batch against NumPy evaluating the same
formulas (interior tests, rank-two blocks, zeroed block-diagonal output), and
the device batch against the host where a GPU and CuPy or PyTorch are present."""
import numpy as np
from timing import best_time, gpu_arrays, report

from dravik.mirel.cones.cpp import _cpp_cuda as m

CASES = [(1000, 1), (10, 2000), (1, 100000)]  # (blocks, batch)


def interior_blocks(rng, k):
    x = rng.standard_normal(k)
    y = rng.uniform(0.5, 2.0, k)
    return np.stack([x, y, y * np.exp(x / y) + rng.uniform(0.1, 2.0, k)], 1).ravel()


def numpy_scaling_batch(s, z, out, blocks, batch):
    a = s.reshape(batch, blocks, 3)
    b = z.reshape(batch, blocks, 3)
    for v in (a, b):
        x, y, w = v[..., 0], v[..., 1], v[..., 2]
        with np.errstate(all="ignore"):
            if not ((y > 0) & (w > y * np.exp(np.clip(x / y, -745.0, 709.0)))).all():
                raise RuntimeError("exponential scaling requires strictly interior cone vectors")
    d = b - a
    q = np.einsum("...i,...i->...", a, a)[..., None, None]
    c = np.einsum("...i,...i->...", d, a)[..., None, None]
    outer_ad = a[..., :, None] * d[..., None, :]
    blocks_m = (np.eye(3) + (outer_ad + outer_ad.swapaxes(-1, -2)) / q
                - c * (a[..., :, None] * a[..., None, :]) / (q * q))
    out[:] = 0.0
    k = np.arange(blocks)
    out.reshape(batch, blocks, 3, blocks, 3)[:, k, :, k, :] = blocks_m.transpose(1, 0, 2, 3)


def host_section(rng):
    for blocks, batch in CASES:
        n = 3 * blocks
        s, z = interior_blocks(rng, blocks * batch), interior_blocks(rng, blocks * batch)
        cone = m.ExponentialConeCpp(blocks)
        ours, peer = np.empty(n * n * batch), np.empty(n * n * batch)
        cone.nt_scaling_matrix_batch_into(s, z, ours, batch)
        numpy_scaling_batch(s, z, peer, blocks, batch)
        np.testing.assert_allclose(ours, peer, rtol=1e-12, atol=1e-14)
        report(f"exp NT scaling blocks={blocks} batch={batch}",
               best_time(lambda: cone.nt_scaling_matrix_batch_into(s, z, ours, batch), repeat=5),
               best_time(lambda: numpy_scaling_batch(s, z, peer, blocks, batch), repeat=5),
               "numpy", cone="exponential", operation="NT scaling batch", size=blocks * batch)


def device_section(rng):
    gpu, reason = gpu_arrays(m)
    if gpu is None:
        print(f"exp NT scaling on the device: skipped ({reason})")
        return
    for blocks, batch in CASES:
        n = 3 * blocks
        s, z = interior_blocks(rng, blocks * batch), interior_blocks(rng, blocks * batch)
        cone = m.ExponentialConeCpp(blocks)
        host_out = np.empty(n * n * batch)
        ds, dz, dout = gpu.to_device(s), gpu.to_device(z), gpu.to_device(host_out)
        on_device = gpu.timed(lambda: cone.nt_scaling_matrix_batch_into(ds, dz, dout, batch))
        report(f"exp NT scaling device blocks={blocks} batch={batch}", on_device,
               best_time(lambda: cone.nt_scaling_matrix_batch_into(s, z, host_out, batch)),
               "host", cone="exponential", operation="NT scaling batch", size=blocks * batch,
               where="gpu")


def main():
    rng = np.random.default_rng(0)
    host_section(rng)
    device_section(rng)


if __name__ == "__main__":
    main()
