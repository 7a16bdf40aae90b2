"""Projection, violation and membership of the second-order, exponential and
PSD cones at small, medium and large sizes, each against the obvious NumPy
formula (CuPy on a GPU), with the share of the copy bandwidth the call
reaches. (The zero and nonnegative cones' elementwise operations have their
own module, bench_elementwise.)"""
import numpy as np
from samples import interior_blocks, project_reference, sample_blocks, violation_reference
from timing import best_time, gpu_arrays, report

from dravik.mirel.cones.cpp import _cpp_cuda as m

ATOL = 1e-8


def soc_project(xp, x):
    t, r = x[0], xp.sqrt(xp.dot(x[1:], x[1:]))
    if t >= r:
        return x.copy()
    if -t >= r:
        return xp.zeros_like(x)
    a = (t + r) * 0.5
    out = x * (a / r)
    out[0] = a
    return out


def soc_cases(xp):
    return {
        "project_into": (lambda x, out: out.__setitem__(slice(None), soc_project(xp, x)), 16),
        "violation": (lambda x, out: xp.sqrt(((x - soc_project(xp, x)) ** 2).sum()), 8),
        "contains": (lambda x, out: bool(x[0] >= xp.sqrt(xp.dot(x[1:], x[1:])) - ATOL), 8),
    }


def exp_cases():
    return {
        "project_into": (lambda x, out: np.copyto(out, project_reference(x)), 16),
        "violation": (lambda x, out: np.sqrt(violation_reference(x).sum()), 8),
        "contains": (lambda x, out: bool(np.sqrt(violation_reference(x)).max() <= ATOL), 8),
    }


def psd_projection(x, n):
    rows, cols = np.tril_indices(n)
    scale = np.where(rows == cols, 1.0, np.sqrt(2.0))
    a = np.zeros((n, n))
    a[rows, cols] = x / scale
    a = a + np.tril(a, -1).T
    w, v = np.linalg.eigh(a)
    return ((v * np.maximum(w, 0.0)) @ v.T)[rows, cols] * scale


def psd_cases(n):
    return {
        "project_into": (lambda x, out: np.copyto(out, psd_projection(x, n)), 16),
        "violation": (lambda x, out: np.linalg.norm(x - psd_projection(x, n)), 8),
        "contains": (lambda x, out: bool(np.linalg.norm(x - psd_projection(x, n)) <= ATOL), 8),
    }


def ours(cone, operation):
    if operation == "project_into":
        return lambda x, out: cone.project_into(x, out)
    if operation == "violation":
        return lambda x, out: cone.violation(x)
    return lambda x, out: cone.contains(x)


def time_cone(name, cone, x, cases, size, number, inside=None):
    """Times every operation on x; membership on `inside` when given (a point
    of the cone, so that neither side can stop at an early failing entry)."""
    out = np.empty_like(x)
    for operation, (peer, bytes_per_entry) in cases.items():
        mine = ours(cone, operation)
        data = inside if operation == "contains" and inside is not None else x
        report(f"{name} {operation} n={size}", best_time(lambda: mine(data, out), number=number),
               best_time(lambda: peer(data, out), number=number), "numpy", cone=name,
               operation=operation, size=size, nbytes=bytes_per_entry * data.size)


def host_section(rng):
    for dim in (10, 10_000, 1_000_000):
        x = rng.standard_normal(dim)
        x[0] = 0.3 * np.linalg.norm(x[1:])  # between the cone and its polar: the full work
        time_cone("second-order", m.SecondOrderConeCpp(dim), x, soc_cases(np), dim,
                  number=200 if dim < 10**5 else 3)
    for blocks in (10, 10_000, 1_000_000):
        x = sample_blocks(rng, blocks)
        time_cone("exponential", m.ExponentialConeCpp(blocks), x, exp_cases(), blocks,
                  number=200 if blocks < 10**5 else 1, inside=interior_blocks(rng, blocks))
    for n in (3, 10, 50):
        a = rng.standard_normal((n, n))
        x = m.psd_svec((a + a.T).ravel(), n)
        time_cone("PSD", m.PsdConeCpp(n), x, psd_cases(n), n, number=20)


def device_section(rng):
    gpu, reason = gpu_arrays(m)
    if gpu is None:
        print(f"elementwise operations on the device: skipped ({reason})")
        return
    if gpu.name != "cupy":
        print("elementwise operations on the device: the peer formulas need CuPy; skipped")
        return
    copy_rate = gpu.copy_bandwidth()
    for dim in (10_000, 1_000_000, 100_000_000):
        host = rng.standard_normal(dim)
        host[0] = 0.3 * np.linalg.norm(host[1:])
        x, out = gpu.to_device(host), gpu.empty(dim)
        cone = m.SecondOrderConeCpp(dim)
        for operation, (peer, bytes_per_entry) in soc_cases(gpu.xp).items():
            mine = ours(cone, operation)
            report(f"second-order {operation} n={dim} (GPU)", gpu.timed(lambda: mine(x, out)),
                   gpu.timed(lambda: peer(x, out)), "cupy", cone="second-order",
                   operation=operation, size=dim, nbytes=bytes_per_entry * dim, where="gpu",
                   copy_rate=copy_rate)


def main():
    rng = np.random.default_rng(0)
    host_section(rng)
    device_section(rng)


if __name__ == "__main__":
    main()
