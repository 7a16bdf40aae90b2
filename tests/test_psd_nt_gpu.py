"""PSD NT scaling on CUDA arrays: the default, custom and cuBLAS/cuSOLVER
paths against the host's batched path, on the default stream and on a new
one; the W blocks of the C interface (symmetric on the library path)
against the host's W; NaN blocks for inputs that are not positive definite.
Skipped without a usable GPU and CuPy or PyTorch."""
import numpy as np
import pytest
from gpu_arrays import psd_w_function
from samples import psd_pairs, smat, svec

METHODS = ["nt_scaling_matrix_batch_into", "nt_scaling_matrix_batch_custom_into",
           "nt_scaling_matrix_batch_cublas_into"]
LIMIT = "CUDA PSD NT scaling currently supports dim <= 128"


def affordable(dims, batches, entries):
    """(dim, batch) pairs whose per-block size times batch stays below `entries`."""
    return [(n, b) for n in dims for b in batches if entries(n) * b <= 7e7]


def rows(n):
    return n * (n + 1) // 2


def close(got, expected, digits=10):
    """Equal to `digits` digits of the largest finite entry, NaN where expected is NaN."""
    finite = np.abs(expected[np.isfinite(expected)])
    scale = finite.max() if finite.size else 1.0
    np.testing.assert_allclose(got, expected, rtol=0, atol=10.0 ** -digits * scale)


def methods_for(dim):
    return [m for m in METHODS if dim <= 32 or "custom" not in m]


def host_batch(cone, s, z, batch):
    out = np.empty(cone.rows ** 2 * batch)
    cone.nt_scaling_matrix_batch_into(s, z, out, batch)
    return out


@pytest.mark.parametrize("dim, batch", affordable([1, 2, 3, 5, 7, 8, 32, 33, 64, 128],
                                                  [0, 1, 4, 16, 100], lambda n: rows(n) ** 2))
def test_paths_match_the_host(m, gpu, rng, dim, batch):
    cone = m.PsdConeCpp(dim)
    s, z = psd_pairs(dim, batch, rng)
    host = host_batch(cone, s, z, batch)
    for method in methods_for(dim):
        close(gpu.scaling(cone, s, z, batch, method), host)
    if batch == 1:
        out = gpu.empty(cone.rows ** 2)
        cone.nt_scaling_matrix_into(gpu.to_device(s), gpu.to_device(z), out)
        gpu.synchronize()
        close(gpu.to_host(out), host)


@pytest.mark.parametrize("dim, batch", [(1, 100), (2, 100), (5, 4), (5, 16), (33, 4)])
def test_paths_run_on_the_callers_stream(m, gpu, rng, dim, batch):
    cone = m.PsdConeCpp(dim)
    s, z = psd_pairs(dim, batch, rng)
    host = host_batch(cone, s, z, batch)
    _, handle = gpu.new_stream()
    for method in methods_for(dim):
        close(gpu.scaling(cone, s, z, batch, method, stream=handle), host)


@pytest.mark.parametrize("dim, batch", affordable([3, 5, 7, 8, 32, 33, 64, 128], [1, 4, 16, 100],
                                                  lambda n: 30 * n ** 3))
@pytest.mark.parametrize("on_new_stream", [False, True])
def test_w_output_matches_the_host(m, gpu, hooks, rng, dim, batch, on_new_stream):
    s, z = psd_pairs(dim, batch, rng)
    ds, dz, w = gpu.to_device(s), gpu.to_device(z), gpu.empty(dim * dim * batch)
    stream, handle = gpu.new_stream() if on_new_stream else (None, 0)
    gpu.synchronize()
    psd_w_function(m)(gpu.pointer(ds), gpu.pointer(dz), gpu.pointer(w), dim, batch, 0, handle)
    gpu.synchronize()
    got = gpu.to_host(w).reshape(batch, dim, dim)
    r = rows(dim)
    for b in range(batch):
        sb, zb = s[b * r:(b + 1) * r], z[b * r:(b + 1) * r]
        close(got[b], hooks.psd_nt_congruence(sb, zb, dim))
        close(got[b] @ smat(sb, dim) @ got[b], smat(zb, dim))
    if hooks.psd_nt_route("w", dim, batch) == "library":
        assert np.array_equal(got, got.transpose(0, 2, 1))   # symmetrised entry by entry
    else:
        close(got, got.transpose(0, 2, 1), 12)               # as computed, to rounding


@pytest.mark.parametrize("dim, batch", [(1, 4), (2, 4), (3, 1), (3, 4), (3, 16), (33, 3)])
def test_blocks_not_positive_definite_come_out_nan(m, gpu, rng, dim, batch):
    cone = m.PsdConeCpp(dim)
    s, z = psd_pairs(dim, batch, rng)
    bad = batch // 2
    indefinite = np.eye(dim)
    indefinite[0, 0] = -1.0
    s[bad * cone.rows:(bad + 1) * cone.rows] = svec(indefinite)
    good = np.ones(batch, bool)
    good[bad] = False
    h = cone.rows ** 2
    expected = np.concatenate([host_batch(cone, s[b * cone.rows:(b + 1) * cone.rows],
                                          z[b * cone.rows:(b + 1) * cone.rows], 1)
                               if good[b] else np.full(h, np.nan) for b in range(batch)])
    for method in methods_for(dim):
        got = gpu.scaling(cone, s, z, batch, method)
        assert np.isnan(got[bad * h:(bad + 1) * h]).all(), method
        close(got, expected)   # NaN where expected is NaN, the host's values elsewhere


def test_zero_batch_and_dim_limits(m, gpu):
    empty, out = gpu.empty(0), gpu.empty(4, fill=7.0)
    cone = m.PsdConeCpp(1000)
    for method in METHODS[0], METHODS[2]:
        getattr(cone, method)(empty, empty, out[:0], 0)
    with pytest.raises(RuntimeError, match="^CUDA PSD custom NT scaling currently supports dim <= 32$"):
        cone.nt_scaling_matrix_batch_custom_into(empty, empty, out[:0], 0)
    psd_w_function(m)(gpu.pointer(out), gpu.pointer(out), gpu.pointer(out), 1000, 0, 0, 0)
    gpu.synchronize()
    assert (gpu.to_host(out) == 7.0).all()
    big = m.PsdConeCpp(129)
    s, h = gpu.empty(big.rows), gpu.empty(big.rows ** 2)
    for method in METHODS[0], METHODS[2]:
        with pytest.raises(RuntimeError, match=f"^{LIMIT}$"):
            getattr(big, method)(s, s, h, 1)
