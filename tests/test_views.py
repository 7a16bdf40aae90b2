"""Length and placement checks, their order and messages, and the owned
result arrays, driven through the zero cone with fake device arrays."""
import gc

import numpy as np
import pytest

import fake_dlpack as fake

DEVICE_REQUIRED = "CUDA runtime is required for CUDA cone arrays"
SAME_DEVICE = "input and output must live on the same device"
SAME_INPUTS = "input vectors must live on the same device"


@pytest.fixture
def cone(m):
    return m.ZeroConeCpp(3)


@pytest.fixture(autouse=True)
def no_cuda_here(m):
    if m.has_cuda():
        pytest.skip("these checks expect a machine without a usable CUDA device")


def _expect(message, fn, *args):
    with pytest.raises(RuntimeError) as err:
        fn(*args)
    assert str(err.value) == message


@pytest.mark.parametrize("device_type", [fake.CUDA_HOST, fake.CUDA_MANAGED, 4])
def test_other_dlpack_devices_are_refused_by_name(cone, device_type):
    _expect("input must be on CPU or CUDA", cone.violation, fake.on_device(3, device_type))
    _expect("output must be on CPU or CUDA", cone.project_into, np.zeros(3),
            fake.on_device(3, device_type))


def test_length_is_reported_before_device_for_one_argument(cone):
    _expect("input expected 3 entries, got 4", cone.violation, fake.on_device(4, fake.CUDA_HOST))


def test_first_failing_argument_in_parameter_order_is_reported(cone):
    z = np.zeros(6)
    # s is fine, z has the wrong length, output too: z is named.
    _expect("z expected 6 entries, got 5", cone.nt_scaling_matrix_batch_into, z, np.zeros(5),
            np.zeros(1), 2)
    # all lengths right, output on an unsupported device, s on CUDA: output's
    # device check (a view check) comes before the same-device checks.
    _expect("output must be on CPU or CUDA", cone.nt_scaling_matrix_batch_into, fake.cuda(6), z,
            fake.on_device(18, fake.CUDA_HOST), 2)


@pytest.mark.parametrize("placement, message", [
    ((fake.cuda, np.zeros), SAME_DEVICE),
    ((np.zeros, fake.cuda), SAME_DEVICE),
    ((lambda n: fake.cuda(n, 0), lambda n: fake.cuda(n, 1)), SAME_DEVICE),
    ((fake.cuda, fake.cuda), DEVICE_REQUIRED),
])
def test_projection_placement(cone, placement, message):
    make_in, make_out = placement
    out = make_out(3)
    _expect(message, cone.project_into, make_in(3), out)


@pytest.mark.parametrize("s_dev, z_dev, out_dev, message", [
    (0, 1, 0, SAME_INPUTS),
    (None, 0, 0, SAME_INPUTS),
    (0, 0, 1, SAME_DEVICE),
    (0, 0, None, SAME_DEVICE),
    (0, 0, 0, DEVICE_REQUIRED),
    (1, 1, 1, DEVICE_REQUIRED),
])
def test_batch_placement_checks_inputs_first(cone, s_dev, z_dev, out_dev, message):
    def make(n, dev):
        return np.zeros(n) if dev is None else fake.cuda(n, dev)
    _expect(message, cone.nt_scaling_matrix_batch_into, make(6, s_dev), make(6, z_dev),
            make(18, out_dev), 2)


def test_device_scalars_need_a_runtime(cone):
    _expect(DEVICE_REQUIRED, cone.violation, fake.cuda(3))
    _expect(DEVICE_REQUIRED, cone.contains, fake.cuda(3), 0.5)


def test_host_data_is_not_touched_when_checks_fail(cone):
    out = np.full(3, 5.0)
    with pytest.raises(RuntimeError):
        cone.project_into(fake.cuda([1.0, 2.0, 3.0]), out)
    assert np.all(out == 5.0)


def test_dense_inputs_must_be_on_the_host(cone):
    _expect("s must be a CPU vector for dense NT scaling", cone.nt_scaling_matrix_array,
            fake.cuda(3), fake.cuda(3))
    _expect("z must be a CPU vector for dense NT scaling", cone.nt_scaling_matrix,
            np.zeros(3), fake.cuda(3))
    _expect("s expected 3 entries, got 2", cone.nt_scaling_matrix, fake.cuda(2), fake.cuda(3))


def test_unit_vector_into_checks_output_before_index(cone):
    _expect("output expected 3 entries, got 2", cone.unit_vector_into, 9, np.zeros(2))
    _expect("output must be a CPU vector for dense helper output", cone.unit_vector_into, 9,
            fake.cuda(3))
    out = np.full(3, 4.0)
    _expect("unit vector index out of range", cone.unit_vector_into, 3, out)
    assert np.all(out == 4.0)


def test_fake_tensors_are_released(cone):
    before = fake.live_tensors()
    for _ in range(3):
        with pytest.raises(RuntimeError):
            cone.project_into(fake.cuda(3), fake.cuda(3))
    gc.collect()
    assert fake.live_tensors() == before


def _resident_bytes():
    with open("/proc/self/statm") as f:
        import os
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def test_owned_array_outlives_its_cone_and_is_freed_with_the_array(m):
    n = 4096  # 128 MiB identity: large enough to see in the resident size
    cone = m.ZeroConeCpp(n)
    z = np.zeros(n)
    arr = cone.nt_scaling_matrix_array(z, z)
    del cone
    gc.collect()
    assert type(arr.base).__name__ == "PyCapsule"
    assert arr.trace() == n and arr.sum() == n
    arr += 1.0  # make every page resident
    held = _resident_bytes()
    del arr
    gc.collect()
    assert held - _resident_bytes() > 100 * 2**20


def test_views_of_an_owned_array_keep_it_alive(m):
    arr = m.ZeroConeCpp(3).unit_vector_array(2)
    tail = arr[1:]
    del arr
    gc.collect()
    assert list(tail) == [0.0, 1.0]


def test_empty_owned_results(m):
    cone = m.ZeroConeCpp(0)
    empty = np.zeros(0)
    arr = cone.nt_scaling_matrix_array(empty, empty)
    assert arr.shape == (0, 0)
    assert cone.nt_scaling_matrix(empty, empty) == []


@pytest.mark.parametrize("cls, dim, batch", [
    ("ZeroConeCpp", 2**32, 2**32),          # rows * batch wraps to 0
    ("NonnegativeConeCpp", 2**33, 2**31),
    ("SecondOrderConeCpp", 3 * 2**40, 2**62),
])
def test_wrapping_batch_sizes_are_refused_before_any_loop(m, cls, dim, batch):
    empty = np.zeros(0)
    with pytest.raises(ValueError, match="^NT scaling batch too large: rows .* overflows$"):
        getattr(m, cls)(dim).nt_scaling_matrix_batch_into(empty, empty, empty, batch)


def test_block_count_whose_rows_would_wrap_is_refused(m):
    # 3 * 6148914691236517206 wraps to 2: a 2-entry input would pass.
    with pytest.raises(ValueError, match=r"^exponential cone too large: 3 \* blocks overflows$"):
        m.ExponentialConeCpp(6148914691236517206)
    assert m.ExponentialConeCpp(6148914691236517205).rows == 2**64 - 1
