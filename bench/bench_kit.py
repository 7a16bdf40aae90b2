"""The solver kit of the nonnegative and second-order cones against what a
solver does without it: CVXOPT's compute_scaling plus the same H formed
with NumPy, CVXOPT's step computation (scale2 then max_step, as its cone
solver runs it), and one documented sparse fill per cone instead of one
batched call. On one thread (a child run with OMP_NUM_THREADS=1) and on the
default team; on a GPU also against the same formulas in CuPy or PyTorch."""
import importlib.util
import json
import os
import subprocess
import sys

import numpy as np
from timing import best_times_interleaved, gpu_arrays, report

from dravik.mirel.cones.cpp import _cpp_cuda as m

SOC_DIM, SOC_CONES, NONNEGATIVE = 10, 1000, 100_000


def soc_pairs(rng, dim, count):
    s, z = rng.standard_normal((2, count, dim))
    s[:, 0] = np.linalg.norm(s[:, 1:], axis=1) * 1.2 + 0.1
    z[:, 0] = np.linalg.norm(z[:, 1:], axis=1) * 1.5 + 0.1
    return s.ravel(), z.ravel()


def cvxopt_scaling_and_h(misc, matrix, dims, s, z, h_from_w):
    """compute_scaling, then H from its W with NumPy."""
    lmbda = matrix(0.0, (len(s), 1))
    W = misc.compute_scaling(matrix(s), matrix(z), lmbda, dims)
    return h_from_w(W), lmbda


def soc_h_from_w(W, dim=SOC_DIM):
    """H = W^-2 with W^-1 = beta^-1 (2 J v v' J - J), batched."""
    v = np.array([np.array(vk).ravel() for vk in W["v"]])
    beta = np.array(W["beta"])
    jv = v.copy()
    jv[:, 1:] *= -1.0
    J = np.diag([1.0] + [-1.0] * (dim - 1))
    w_inv = (2.0 * jv[:, :, None] * jv[:, None, :] - J) / beta[:, None, None]
    return w_inv @ w_inv


def measurements(rng):
    """[(label, cone, operation, size, ours, peer, peer_name)] on this process's threads."""
    from cvxopt import matrix, misc
    rows = []

    # Second-order: 1000 cones of dim 10.
    s, z = soc_pairs(rng, SOC_DIM, SOC_CONES)
    cone = m.SecondOrderConeCpp(SOC_DIM)
    sc = np.empty(cone.scaling_length(SOC_CONES))
    h = np.empty(SOC_DIM * SOC_DIM * SOC_CONES)

    def ours():
        cone.nt_scaling_into(s, z, sc, batch=SOC_CONES)
        cone.nt_hessian_into(sc, h, batch=SOC_CONES)

    dims = {"l": 0, "q": [SOC_DIM] * SOC_CONES, "s": []}
    t_ours, t_peer = best_times_interleaved(
        [ours, lambda: cvxopt_scaling_and_h(misc, matrix, dims, s, z, soc_h_from_w)], repeat=5)
    rows.append(("SOC NT scaling + H dim=10 batch=1000", "SOC", "kit NT scaling + H", SOC_DIM,
                 t_ours, t_peer, "CVXOPT+NumPy"))
    _, lmbda = cvxopt_scaling_and_h(misc, matrix, dims, s, z, soc_h_from_w)
    ds = rng.standard_normal(s.size)
    scaled = matrix(ds)

    def cvxopt_step():
        scaled[:] = matrix(ds)
        misc.scale2(lmbda, scaled, dims)
        return misc.max_step(scaled, dims)

    t_ours, t_peer = best_times_interleaved(
        [lambda: cone.max_step(s, ds, batch=SOC_CONES), cvxopt_step], repeat=7, number=5)
    rows.append(("SOC max_step dim=10 batch=1000", "SOC", "kit max_step", SOC_DIM, t_ours,
                 t_peer, "CVXOPT scale2+max_step"))

    # The batched coupling-safe CSR fill against one documented fill per cone.
    size = SOC_DIM * SOC_CONES
    blocks = np.kron(np.eye(SOC_CONES), np.ones((SOC_DIM, SOC_DIM)))
    import scipy.sparse as sp
    csr = sp.csr_matrix(blocks)
    indptr, indices = csr.indptr.astype(np.int64), csr.indices.astype(np.int64)
    values = np.zeros(csr.nnz)
    sv, zv = s.reshape(SOC_CONES, SOC_DIM), z.reshape(SOC_CONES, SOC_DIM)

    def documented():
        for k in range(SOC_CONES):
            cone.hmatrix_csr_values_into(sv[k], zv[k], indptr, indices, values,
                                         row_offset=k * SOC_DIM)

    t_ours, t_peer = best_times_interleaved(
        [lambda: cone.nt_hessian_csr_values_into(sc, indptr, indices, values, batch=SOC_CONES),
         documented], repeat=5)
    rows.append((f"SOC CSR fill dim=10 batch=1000 (rows={size})", "SOC", "kit CSR fill", SOC_DIM,
                 t_ours, t_peer, "1000 documented fills"))

    # Nonnegative: 10^5 entries (H as 10^5 one-entry blocks, its diagonal).
    s = rng.uniform(0.1, 2.0, NONNEGATIVE)
    z = rng.uniform(0.1, 2.0, NONNEGATIVE)
    one = m.NonnegativeConeCpp(1)
    sc = np.empty(one.scaling_length(NONNEGATIVE))
    h = np.empty(NONNEGATIVE)

    def ours_nonnegative():
        one.nt_scaling_into(s, z, sc, batch=NONNEGATIVE)
        one.nt_hessian_into(sc, h, batch=NONNEGATIVE)

    dims = {"l": NONNEGATIVE, "q": [], "s": []}
    diagonal = lambda W, dim=None: 1.0 / np.array(W["d"]).ravel() ** 2  # noqa: E731
    t_ours, t_peer = best_times_interleaved(
        [ours_nonnegative, lambda: cvxopt_scaling_and_h(misc, matrix, dims, s, z, diagonal)],
        repeat=5)
    rows.append(("nonnegative NT scaling + H n=100000", "nonnegative", "kit NT scaling + H",
                 NONNEGATIVE, t_ours, t_peer, "CVXOPT+NumPy"))
    _, lmbda = cvxopt_scaling_and_h(misc, matrix, dims, s, z, diagonal)
    ds = rng.standard_normal(NONNEGATIVE)
    scaled = matrix(ds)

    def cvxopt_nonnegative_step():
        scaled[:] = matrix(ds)
        misc.scale2(lmbda, scaled, dims)
        return misc.max_step(scaled, dims)

    t_ours, t_peer = best_times_interleaved(
        [lambda: one.max_step(s, ds, batch=NONNEGATIVE), cvxopt_nonnegative_step], repeat=7)
    rows.append(("nonnegative max_step n=100000", "nonnegative", "kit max_step", NONNEGATIVE,
                 t_ours, t_peer, "CVXOPT scale2+max_step"))
    return rows


def device_rows(rng):
    """The kit on the device against the same formulas in CuPy or PyTorch."""
    gpu, reason = gpu_arrays(m)
    if gpu is None:
        print(f"device: not measured ({reason})")
        return
    xp = gpu.xp
    for dim, count in ((10, 100_000), (64, 10_000)):
        s, z = soc_pairs(rng, dim, count)
        cone = m.SecondOrderConeCpp(dim)
        ds, dz = gpu.to_device(s), gpu.to_device(z)
        sc = gpu.empty(cone.scaling_length(count))
        h = gpu.empty(dim * dim * count)
        S, Z = ds.reshape(count, dim), dz.reshape(count, dim)

        def peer():  # the same normalised formulas, vectorised
            det = lambda x: (x[:, 0] - (x[:, 1:] ** 2).sum(1) ** 0.5) * (  # noqa: E731
                x[:, 0] + (x[:, 1:] ** 2).sum(1) ** 0.5)
            a, b = det(S) ** 0.5, det(Z) ** 0.5
            sh, zh = S / a[:, None], Z / b[:, None]
            g = ((1 + (sh * zh).sum(1)) / 2) ** 0.5
            w = sh.clone() if gpu.name == "torch" else sh.copy()
            w[:, 0] += zh[:, 0]
            w[:, 1:] -= zh[:, 1:]
            w /= 2 * g[:, None]
            u = w.clone() if gpu.name == "torch" else w.copy()
            u[:, 1:] *= -1
            J = xp.ones(dim, dtype=S.dtype)
            J[1:] = -1
            return (2 * u[:, :, None] * u[:, None, :] - xp.diag(J)) * (b / a)[:, None, None]

        def ours():
            cone.nt_scaling_into(ds, dz, sc, batch=count)
            cone.nt_hessian_into(sc, h, batch=count)

        report(f"SOC NT scaling + H dim={dim} batch={count}", gpu.timed(ours), gpu.timed(peer),
               gpu.name, cone="SOC", operation="kit NT scaling + H", size=dim, where="device")


def main():
    if importlib.util.find_spec("cvxopt") is None:
        print("kit: CVXOPT is not installed (apt-get install python3-cvxopt); not measured")
        return
    here = os.path.dirname(os.path.abspath(__file__))
    child = subprocess.run([sys.executable, os.path.join(here, "bench_kit.py"), "--rows"],
                           env=dict(os.environ, OMP_NUM_THREADS="1"), capture_output=True,
                           text=True, check=True)
    for label, cone, operation, size, ours, peer, peer_name in json.loads(child.stdout):
        report(label + " (1 thread)", ours, peer, peer_name, cone=cone, operation=operation,
               size=size, where="host, 1 thread")
    for label, cone, operation, size, ours, peer, peer_name in measurements(
            np.random.default_rng(1)):
        report(label, ours, peer, peer_name, cone=cone, operation=operation, size=size)
    device_rows(np.random.default_rng(2))


if __name__ == "__main__":
    if sys.argv[1:] == ["--rows"]:
        print(json.dumps(measurements(np.random.default_rng(1))))
    else:
        main()
