"""Sparse Hessian fills: refreshing the H blocks of a KKT matrix (CSR) with
10 000 nonnegative rows, 1 000 second-order cones of dim 10, 1 000
exponential blocks and 100 PSD cones of order 5, one fill call per cone,
against SciPy building the same block-diagonal matrix from the dense NT
blocks (scipy.sparse.block_diag of nt_scaling_matrix_array results) and
copying its values into the pattern. The nonnegative orthant and the
exponential product enter SciPy in chunks (100 x 100 and 30 x 30 blocks,
since one dense block of each would not fit), made sparse so that their
zeros stay out of the pattern; the second-order and PSD blocks are dense.
On a GPU the same fills run on CuPy or PyTorch arrays."""
import numpy as np
import scipy.sparse as sp
from timing import best_time, gpu_arrays, report  # puts tests/ on the path, for samples

from dravik.mirel.cones.cpp import _cpp_cuda as m
from samples import interior_blocks, soc_interior  # noqa: E402

NONNEG, SOC_COUNT, SOC_DIM, EXP_BLOCKS, PSD_COUNT, PSD_ORDER = 10000, 1000, 10, 1000, 100, 5
NONNEG_CHUNK, EXP_CHUNK = 100, 10


def spd_svec(rng, n):
    a = rng.standard_normal((n, n))
    return m.psd_svec(np.ascontiguousarray((a @ a.T + n * np.eye(n)).ravel()), n)


def kkt_cones(rng):
    """[(cone, s, z, row_offset)] in row order; one cone object per kind,
    the second-order and PSD ones called once per cone on slices."""
    soc, psd = m.SecondOrderConeCpp(SOC_DIM), m.PsdConeCpp(PSD_ORDER)
    cones, offset = [], 0

    def add(cone, s, z):
        nonlocal offset
        cones.append((cone, s, z, offset))
        offset += cone.rows
    add(m.NonnegativeConeCpp(NONNEG), rng.uniform(0.5, 2, NONNEG), rng.uniform(0.5, 2, NONNEG))
    for _ in range(SOC_COUNT):
        add(soc, soc_interior(SOC_DIM, rng), soc_interior(SOC_DIM, rng, 2.0))
    add(m.ExponentialConeCpp(EXP_BLOCKS), interior_blocks(rng, EXP_BLOCKS),
        interior_blocks(rng, EXP_BLOCKS))
    for _ in range(PSD_COUNT):
        add(psd, spd_svec(rng, PSD_ORDER), spd_svec(rng, PSD_ORDER))
    return cones


def dense_blocks(cones):
    """The NT blocks for SciPy, the two large block-diagonal cones in sparse chunks."""
    blocks = []
    for cone, s, z, _ in cones:
        if isinstance(cone, (m.NonnegativeConeCpp, m.ExponentialConeCpp)):
            chunk = NONNEG_CHUNK if isinstance(cone, m.NonnegativeConeCpp) else 3 * EXP_CHUNK
            part = (m.NonnegativeConeCpp(chunk) if chunk == NONNEG_CHUNK else
                    m.ExponentialConeCpp(EXP_CHUNK))
            blocks += [sp.coo_matrix(part.nt_scaling_matrix_array(s[i:i + chunk], z[i:i + chunk]))
                       for i in range(0, len(s), chunk)]
        else:
            blocks.append(cone.nt_scaling_matrix_array(s, z))
    return blocks


def scipy_refresh(cones, values):
    values[:] = sp.block_diag(dense_blocks(cones), format="csr").data


def fill_all(cones, indptr, indices, values, stream=0):
    for cone, s, z, offset in cones:
        cone.hmatrix_csr_values_into(s, z, indptr, indices, values, offset, stream)


def host_section(cones):
    pattern = sp.block_diag(dense_blocks(cones), format="csr")
    indptr, indices = pattern.indptr.astype(np.int64), pattern.indices.astype(np.int64)
    ours_values, peer_values = np.empty(pattern.nnz), np.empty(pattern.nnz)
    ours = best_time(lambda: fill_all(cones, indptr, indices, ours_values), repeat=5)
    peer = best_time(lambda: scipy_refresh(cones, peer_values), repeat=5)
    np.testing.assert_array_equal(ours_values, peer_values)
    report(f"KKT H refresh host CSR nnz={pattern.nnz} ({len(cones)} fills)", ours, peer,
           "scipy", cone="KKT refresh", operation="CSR fill", size=pattern.nnz)
    return indptr, indices, peer_values, peer


def gpu_section(cones, indptr, indices, expected, scipy_time):
    gpu, reason = gpu_arrays(m)
    if gpu is None:
        print(f"KKT H refresh GPU section skipped: {reason}")
        return
    on_device = [(cone, gpu.to_device(s), gpu.to_device(z), offset)
                 for cone, s, z, offset in cones]
    d_indptr, d_indices = gpu.to_device(indptr, np.int64), gpu.to_device(indices, np.int64)
    values = gpu.empty(len(expected))
    ours = gpu.timed(lambda: fill_all(on_device, d_indptr, d_indices, values), repeat=5, number=1)
    np.testing.assert_allclose(gpu.to_host(values), expected, rtol=1e-11, atol=1e-12)
    report(f"KKT H refresh GPU CSR ({gpu.name} arrays) vs host scipy", ours, scipy_time, "scipy",
           cone="KKT refresh", operation="CSR fill", size=len(expected), where="gpu")


def main():
    cones = kkt_cones(np.random.default_rng(0))
    indptr, indices, expected, scipy_time = host_section(cones)
    gpu_section(cones, indptr, indices, expected, scipy_time)


if __name__ == "__main__":
    main()
