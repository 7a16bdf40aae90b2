"""What every cone shares: argument checks in order with their messages
(fake device arrays), unit vectors, size overflow refusals, and the lifetime
of owned result arrays."""
import gc
import os

import numpy as np
import pytest

import fake_dlpack as fake
from cone_cases import MARK, RUNTIME, check_cases
from dravik.mirel.cones.cpp import _cpp_cuda

CONES = {"zero": ("ZeroConeCpp", 4), "nonnegative": ("NonnegativeConeCpp", 4),
         "second-order": ("SecondOrderConeCpp", 4), "exponential": ("ExponentialConeCpp", 2),
         "psd": ("PsdConeCpp", 3)}


def _cases():
    for name, (cls, arg) in CONES.items():
        cone = getattr(_cpp_cuda, cls)(arg)
        for i, (methods, args, message) in enumerate(check_cases(cone.rows)):
            for method in filter(lambda meth: hasattr(cone, meth), methods):
                yield pytest.param(cls, arg, method, args, message, id=f"{name}-{method}-{i}")


@pytest.mark.parametrize("cls, arg, method, args, message", list(_cases()))
def test_argument_checks_in_order_touch_nothing(m, cls, arg, method, args, message):
    if message == RUNTIME and m.has_cuda():
        pytest.skip("fake device arrays must not reach a real device")
    with pytest.raises(RuntimeError) as err:
        getattr(getattr(m, cls)(arg), method)(*args)
    assert str(err.value) == message
    for a in args:
        host = getattr(a, "host", a)
        assert not isinstance(host, np.ndarray) or (host == MARK).all()


@pytest.mark.parametrize("cls, arg, index", [("ZeroConeCpp", 5, 0), ("ZeroConeCpp", 5, 4),
                                             ("PsdConeCpp", 3, 5)])
def test_unit_vectors_agree_in_all_three_forms(m, cls, arg, index):
    cone = getattr(m, cls)(arg)
    expected, out = np.eye(cone.rows)[index], np.full(cone.rows, 9.0)
    cone.unit_vector_into(index, out)
    assert cone.unit_vector(index) == list(expected) and np.array_equal(out, expected)
    assert np.array_equal(cone.unit_vector_array(index), expected)


def test_fake_tensors_are_released(m):
    if m.has_cuda():
        pytest.skip("fake device arrays must not reach a real device")
    before = fake.live_tensors()
    for _ in range(3):
        with pytest.raises(RuntimeError):
            m.ZeroConeCpp(3).project_into(fake.cuda(3), fake.cuda(3))
    gc.collect()
    assert fake.live_tensors() == before


def _resident_bytes():
    with open("/proc/self/statm") as f:
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
