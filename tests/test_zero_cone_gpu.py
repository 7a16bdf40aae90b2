"""Zero cone on CUDA arrays compared with the host. Runs wherever a CUDA
device and CuPy or PyTorch are present; skipped with the reason elsewhere."""
import numpy as np
import pytest

import fake_dlpack as fake


@pytest.mark.parametrize("n", [0, 1, 256, 257, 65536, 65537])
def test_violation_and_membership_match_the_host(m, gpu, rng, n):
    x = rng.standard_normal(n)
    cone = m.ZeroConeCpp(n)
    d = gpu.to_device(x)
    assert cone.violation(d) == pytest.approx(cone.violation(x), rel=1e-12)
    biggest = float(np.max(np.abs(x))) if n else 0.0
    assert cone.contains(d, biggest) is True
    assert cone.contains(d, np.nextafter(biggest, -1.0)) is False


@pytest.mark.parametrize("position", [0, 255, 256, 65536])
def test_membership_finds_the_one_entry_in_any_block(m, gpu, position):
    x = np.zeros(65537)
    x[position] = -0.5
    cone = m.ZeroConeCpp(x.size)
    d = gpu.to_device(x)
    assert cone.contains(d, 0.1) is False and cone.contains(d, 0.5) is True


def test_nan_and_empty_membership(m, gpu):
    # The host scan lets NaN pass; the device maximum carries it and fails.
    assert m.ZeroConeCpp(3).contains(gpu.to_device(np.array([0.0, np.nan, 0.0]))) is False
    d, cone = gpu.to_device(np.zeros(0)), m.ZeroConeCpp(0)
    assert cone.contains(d, 0.0) is True and cone.contains(d, -1.0) is False
    assert cone.violation(d) == 0.0


@pytest.mark.parametrize("n", [0, 5, 70000])
def test_projection_zeroes_the_output(m, gpu, rng, n):
    assert np.all(gpu.project(m.ZeroConeCpp(n), rng.standard_normal(n)) == 0.0)


@pytest.mark.parametrize("dim, batch", [(1, 1), (2, 3), (7, 100), (3, 0)])
def test_batch_identities_even_for_nonzero_inputs(m, gpu, rng, dim, batch):
    s = rng.standard_normal(dim * batch)
    expected = np.broadcast_to(np.eye(dim), (batch, dim, dim)).ravel()
    assert np.array_equal(gpu.scaling(m.ZeroConeCpp(dim), s, s, batch), expected)
    if batch == 1:
        out = gpu.empty(dim * dim)
        m.ZeroConeCpp(dim).nt_scaling_matrix_into(gpu.to_device(s), gpu.to_device(s), out)
        gpu.synchronize()
        assert np.array_equal(gpu.to_host(out), expected)


def test_invalid_ordinal_reports_set_device_and_recovers(m, gpu, rng):
    # The fake array is never read: device selection fails first.
    with pytest.raises(RuntimeError) as err:
        m.ZeroConeCpp(3).violation(fake.cuda(3, device_id=999))
    assert str(err.value) == "cudaSetDevice failed: invalid device ordinal"
    x = rng.standard_normal(300)
    assert not gpu.project(m.ZeroConeCpp(300), x).any()   # launches work again
    assert m.ZeroConeCpp(300).violation(gpu.to_device(x)) == pytest.approx(np.linalg.norm(x))
