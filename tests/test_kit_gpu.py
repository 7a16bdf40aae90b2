"""The solver kit on CUDA arrays (CuPy or PyTorch), against the host on the
same values: every method of every cone kind, a batch that spans several
thread blocks, refused items as NaN, and the fills on a stream of their own.
Skipped without a usable GPU."""
import numpy as np
import pytest
import scipy.sparse as sp

from kit_cases import KINDS, Kit, cone_of

CASES = [(kind, n) for kind in KINDS for n in KINDS[kind].sizes]


def batch_of(kind, n, batch, rng, gap=None):
    return np.concatenate([KINDS[kind].interior(n, rng, gap) for _ in range(batch)])


def on_device(gpu, method, *arrays, out_length, **kw):
    """cone method on device copies of the arrays, into a NaN device output,
    back on the host."""
    args = [gpu.to_device(a) for a in arrays]
    out = gpu.empty(out_length)
    gpu.synchronize()
    method(*args, out, **kw)
    gpu.synchronize()
    return gpu.to_host(out)


def close(got, want, rel=1e-13):
    assert np.all(np.abs(got - want) <= rel * np.maximum(np.abs(want), np.abs(want).max()))


@pytest.mark.parametrize("batch", [1, 300])
@pytest.mark.parametrize("kind, n", CASES)
def test_every_method_matches_the_host(m, gpu, rng, kind, n, batch):
    cone = cone_of(m, kind, n)
    kit = Kit(cone, batch)
    s, z = batch_of(kind, n, batch, rng, 1e-9), batch_of(kind, n, batch, rng)
    x = rng.normal(size=n * batch)
    sc = kit.scaling(s, z)
    length, rows = n * batch, cone.rows
    close(on_device(gpu, cone.nt_scaling_into, s, z, out_length=len(sc), batch=batch), sc)
    close(on_device(gpu, cone.nt_scaled_point_into, sc, out_length=length, batch=batch),
          kit.vector("nt_scaled_point_into", sc))
    for inverse in (False, True):
        close(on_device(gpu, cone.nt_apply_into, sc, x, out_length=length, batch=batch,
                        inverse=inverse), kit.vector("nt_apply_into", sc, x, inverse=inverse))
        close(on_device(gpu, cone.nt_hessian_into, sc, out_length=rows * rows * batch,
                        batch=batch, inverse=inverse), kit.hessian(sc, inverse).ravel())
    close(on_device(gpu, cone.jordan_product_into, s, x, out_length=length, batch=batch),
          kit.vector("jordan_product_into", s, x))
    close(on_device(gpu, cone.jordan_divide_into, s, x, out_length=length, batch=batch),
          kit.vector("jordan_divide_into", s, x), rel=1e-9)
    assert np.array_equal(on_device(gpu, cone.identity_into, out_length=length, batch=batch),
                          kit.vector("identity_into"))
    for dx in (x, -z, z):
        host = cone.max_step(s, dx, batch=batch)
        assert cone.max_step(gpu.to_device(s), gpu.to_device(dx), batch=batch) == \
            pytest.approx(host, rel=1e-13)


@pytest.mark.parametrize("kind, n", CASES)
def test_refused_items_come_out_nan(m, gpu, rng, kind, n):
    cone = cone_of(m, kind, n)
    s, z = batch_of(kind, n, 3, rng), batch_of(kind, n, 3, rng)
    s[n] = -1.0  # item 1 outside
    sc = on_device(gpu, cone.nt_scaling_into, s, z, out_length=cone.scaling_length(3), batch=3)
    per_item = sc.reshape(3, -1)
    assert np.isnan(per_item[1]).all() and not np.isnan(per_item[[0, 2]]).any()
    quotient = on_device(gpu, cone.jordan_divide_into, s, z, out_length=3 * n, batch=3)
    assert np.isnan(quotient[n:2 * n]).all() and not np.isnan(quotient[:n]).any()
    assert np.isnan(cone.max_step(gpu.to_device(s), gpu.to_device(z), batch=3))


@pytest.mark.parametrize("kind, n", [("nonnegative", 3), ("soc", 4)])
@pytest.mark.parametrize("layout", ["csr", "coo"])
def test_fills_match_the_host_on_a_stream(m, gpu, rng, kind, n, layout):
    batch, offset = 40, 3
    cone = cone_of(m, kind, n)
    sc = Kit(cone, batch).scaling(batch_of(kind, n, batch, rng), batch_of(kind, n, batch, rng))
    size = offset + n * batch + 5
    mat = sp.random(size, size, density=0.05, random_state=np.random.RandomState(3), format="lil")
    for b in range(batch):
        lo = offset + b * n
        mat[lo:lo + n, lo:lo + n] = 1.0
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
