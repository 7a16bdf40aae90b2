"""PSD on CUDA arrays compared with the host: the 2 x 2 projection,
violation and membership, and svec/smat packing. Runs wherever a CUDA device
and CuPy or PyTorch are present; skipped with the reason elsewhere."""
import numpy as np
import pytest
from cone_cases import projected

R2 = np.sqrt(2.0)
CASES = [[1.0, 2.0 * R2, 1.0], [2.0, 0.0, -3.0], [-1.0, 0.5, -2.0], [4.0, 0.0, 4.0],
         [-3.0, 0.0, -3.0], [1.0, R2 * 1e-13, -1.0], [0.0, 0.0, 0.0], [5.0, -1.0, 0.1]]


@pytest.mark.parametrize("x", CASES + ["random"])
def test_two_by_two_matches_the_host(m, gpu, rng, x):
    cone = m.PsdConeCpp(2)
    for x in rng.standard_normal((50, 3)) if x == "random" else [np.array(x)]:
        host = projected(cone, x)
        # The host counts an off-diagonal entry below 1e-12 as zero; the closed
        # form does not, so the two differ by up to about that much.
        for in_place in (False, True):
            assert gpu.project(cone, x, in_place) == pytest.approx(host, abs=1e-12)
        d, v = gpu.to_device(x), cone.violation(x)
        assert cone.violation(d) == pytest.approx(v, abs=1e-14)
        assert cone.contains(d, v + 1e-12) is True
        assert v <= 1e-12 or cone.contains(d, v * 0.5) is False
    assert cone.contains(gpu.to_device(np.array([np.nan, 0.0, 1.0]))) is False


@pytest.mark.parametrize("n", [0, 1, 2, 3, 6, 17, 40])
def test_packing_matches_the_host(m, gpu, rng, n):
    a = rng.standard_normal(n * n)
    x = m.psd_svec(a, n)
    packed, unpacked = gpu.empty(x.size), gpu.empty(n * n)
    m.psd_svec_into(gpu.to_device(a), packed, n)
    m.psd_smat_into(gpu.to_device(x), unpacked, n)
    gpu.synchronize()
    assert np.array_equal(gpu.to_host(packed), x)
    assert np.array_equal(gpu.to_host(unpacked), m.psd_smat(x, n).ravel())
