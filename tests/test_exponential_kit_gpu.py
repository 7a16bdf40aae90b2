"""The exponential cone's dual-cone operations and solver kit on CUDA arrays
(CuPy or PyTorch) against the host on the same values, one 3-block per
thread: batches spanning several thread blocks, refused blocks as NaN, the
fills on a stream of their own. Points stay well inside the cones, where
the device's exp and log (not those of the host's libm) move results by
rounding only. Skipped without a usable GPU."""
import numpy as np
import pytest
import scipy.sparse as sp

import exp_reference as ref
from kit_cases import Kit

INSIDE = (-3, 0.5)


def run(gpu, method, *arrays, out_length, **kw):
    args = [gpu.to_device(a) for a in arrays]
    out = gpu.empty(out_length)
    gpu.synchronize()
    method(*args, out, **kw)
    gpu.synchronize()
    return gpu.to_host(out)


def close(got, want, rel=1e-13):
    scale = np.abs(want).reshape(-1, 3).max(1).repeat(3) if want.size % 3 == 0 else np.abs(want)
    assert np.all((np.abs(got - want) <= rel * scale) | (np.isnan(got) & np.isnan(want)))


@pytest.mark.parametrize("blocks", [1, 255, 257, 70000])
def test_dual_cone_operations_match_the_host(m, gpu, rng, blocks):
    cone = m.ExponentialConeCpp(blocks)
    x = rng.standard_normal(3 * blocks) * 10.0 ** rng.uniform(-3, 3, 3 * blocks)
    host = np.empty_like(x)
    cone.project_dual_into(x, host)
    close(run(gpu, cone.project_dual_into, x, out_length=x.size), host)
    assert cone.violation_dual(gpu.to_device(x)) == pytest.approx(cone.violation_dual(x),
                                                                  rel=1e-12)
    inside = ref.dual_points(rng, blocks, INSIDE)
    assert cone.contains_dual(gpu.to_device(inside)) is True
    for where in sorted({0, blocks // 2, blocks - 1}):
        bad = inside.copy()
        bad[3 * where] = 1.0
        assert cone.contains_dual(gpu.to_device(bad)) is False


@pytest.mark.parametrize("blocks, batch", [(1, 1), (2, 300), (5, 20)])
def test_kit_matches_the_host(m, gpu, rng, blocks, batch):
    cone, n = m.ExponentialConeCpp(blocks), blocks * batch
    kit = Kit(cone, batch)
    s, z = ref.primal_points(rng, n, INSIDE), ref.dual_points(rng, n, INSIDE)
    length = 3 * n
    assert np.array_equal(run(gpu, cone.identity_into, out_length=length, batch=batch),
                          kit.vector("identity_into"))
    for method, x in (("barrier_gradient_into", s), ("barrier_gradient_dual_into", z)):
        close(run(gpu, getattr(cone, method), x, out_length=length, batch=batch),
              kit.vector(method, x), rel=1e-12)
    for mu in (0.0, 2.5):
        sc = np.full(cone.scaling_length(batch), np.nan)
        cone.nt_scaling_into(s, z, sc, batch=batch, mu=mu)
        device = run(gpu, cone.nt_scaling_into, s, z, out_length=sc.size, batch=batch, mu=mu)
        assert np.all(np.abs(device - sc) <= 1e-9 * np.abs(sc).reshape(-1, 6).max(1).repeat(6))
    for inverse in (False, True):
        assert np.array_equal(
            run(gpu, cone.nt_hessian_into, sc, out_length=cone.rows ** 2 * batch, batch=batch,
                inverse=inverse), kit.hessian(sc, inverse).ravel())
    dx, dz = rng.standard_normal(length) * np.abs(s), rng.standard_normal(length) * np.abs(z)
    for step, x, d in (("max_step", s, dx), ("max_step_dual", z, dz)):
        host = getattr(cone, step)(x, d, batch=batch)
        assert getattr(cone, step)(gpu.to_device(x), gpu.to_device(d), batch=batch) == \
            pytest.approx(host, rel=1e-10)


def test_refused_blocks_come_out_nan(m, gpu, rng):
    cone = m.ExponentialConeCpp(2)
    s, z = ref.primal_points(rng, 6), ref.dual_points(rng, 6)
    s[3 * 3 + 1] = -1.0  # item 1, block 1
    sc = run(gpu, cone.nt_scaling_into, s, z, out_length=cone.scaling_length(3), batch=3)
    per_block = sc.reshape(6, 12)
    assert np.isnan(per_block[3]).all() and not np.isnan(np.delete(per_block, 3, 0)).any()
    g = run(gpu, cone.barrier_gradient_into, s, out_length=18, batch=3).reshape(6, 3)
    assert np.isnan(g[3]).all() and not np.isnan(np.delete(g, 3, 0)).any()
    assert np.isnan(cone.max_step(gpu.to_device(s), gpu.to_device(z), batch=3))
    assert np.isnan(cone.max_step_dual(gpu.to_device(s), gpu.to_device(z), batch=3))


@pytest.mark.parametrize("layout", ["csr", "coo"])
def test_fills_match_the_host_on_a_stream(m, gpu, rng, layout):
    blocks, batch, offset = 2, 40, 3
    cone = m.ExponentialConeCpp(blocks)
    n = blocks * batch
    sc = Kit(cone, batch).scaling(ref.primal_points(rng, n), ref.dual_points(rng, n))
    size = offset + cone.rows * batch + 5
    mat = sp.random(size, size, density=0.05, random_state=np.random.RandomState(3), format="lil")
    for b in range(batch):
        lo = offset + b * cone.rows
        mat[lo:lo + cone.rows, lo:lo + cone.rows] = 1.0
    mat = sp.csr_matrix(mat) if layout == "csr" else sp.coo_matrix(mat)
    first, second = ((mat.indptr, mat.indices) if layout == "csr" else (mat.row, mat.col))
    first, second = first.astype(np.int64), second.astype(np.int64)
    initial = rng.normal(size=mat.nnz)
    fill = getattr(cone, f"nt_hessian_{layout}_values_into")
    host = initial.copy()
    fill(sc, first, second, host, row_offset=offset, batch=batch, inverse=True, scale=-1.5)
    values = gpu.to_device(initial)
    stream, handle = gpu.new_stream()
    args = [gpu.to_device(a) for a in (sc, first, second)]
    gpu.synchronize()
    fill(*args, values, row_offset=offset, batch=batch, inverse=True, scale=-1.5, stream=handle)
    gpu.synchronize()
    assert np.array_equal(gpu.to_host(values), host)
