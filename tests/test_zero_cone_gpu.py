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


def test_nan_makes_device_membership_false(m, gpu):
    # The host scan lets NaN pass; the device maximum carries it and fails.
    x = np.array([0.0, np.nan, 0.0])
    assert m.ZeroConeCpp(3).contains(gpu.to_device(x)) is False


def test_empty_membership_on_device_follows_atol_sign(m, gpu):
    d = gpu.to_device(np.zeros(0))
    cone = m.ZeroConeCpp(0)
    assert cone.contains(d, 0.0) is True and cone.contains(d, -1.0) is False
    assert cone.violation(d) == 0.0


@pytest.mark.parametrize("n", [0, 5, 70000])
def test_projection_zeroes_the_output(m, gpu, rng, n):
    out = gpu.empty(n, fill=3.0)
    m.ZeroConeCpp(n).project_into(gpu.to_device(rng.standard_normal(n)), out)
    gpu.synchronize()
    assert np.all(gpu.to_host(out) == 0.0)


@pytest.mark.parametrize("dim, batch", [(1, 1), (2, 3), (7, 100), (3, 0)])
def test_batch_identities_even_for_nonzero_inputs(m, gpu, rng, dim, batch):
    s = gpu.to_device(rng.standard_normal(dim * batch))
    out = gpu.empty(dim * dim * batch, fill=5.0)
    m.ZeroConeCpp(dim).nt_scaling_matrix_batch_into(s, s, out, batch)
    gpu.synchronize()
    expected = np.broadcast_to(np.eye(dim), (batch, dim, dim)).ravel()
    assert np.array_equal(gpu.to_host(out), expected)


def test_into_on_device_is_the_batch_of_one(m, gpu):
    out = gpu.empty(4)
    s = gpu.to_device(np.ones(2))
    m.ZeroConeCpp(2).nt_scaling_matrix_into(s, s, out)
    gpu.synchronize()
    assert np.array_equal(gpu.to_host(out), np.eye(2).ravel())


def test_invalid_ordinal_reports_set_device_and_recovers(m, gpu, rng):
    # The fake array is never read: device selection fails first.
    with pytest.raises(RuntimeError) as err:
        m.ZeroConeCpp(3).violation(fake.cuda(3, device_id=999))
    assert str(err.value) == "cudaSetDevice failed: invalid device ordinal"
    x = rng.standard_normal(300)
    out = gpu.empty(300)
    m.ZeroConeCpp(300).project_into(gpu.to_device(x), out)   # launches work again
    assert m.ZeroConeCpp(300).violation(gpu.to_device(x)) == pytest.approx(np.linalg.norm(x))
