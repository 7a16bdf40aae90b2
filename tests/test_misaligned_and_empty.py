"""Misaligned arrays are refused by the views, and empty data costs nothing:
the alignment rule for every argument kind and its place in the check order,
and degenerate sizes (dim 0 with a huge batch, batch 0 with a huge cone)
returning at once even in an unoptimised build."""
import json

import numpy as np
import pytest

from cone_cases import MARK
from processes import run_python
from fake_dlpack import CUDA, CUDA_HOST, FakeDeviceArray

MADE = []  # every float64 array a case made, to check afterwards


def bad(n, device_type=None, writable=True, dtype=np.float64):
    """n entries filled with MARK, one byte past an 8-byte boundary."""
    array = np.frombuffer(bytearray(8 * n + 8), dtype=dtype, count=n, offset=1)
    array[:] = MARK
    array.flags.writeable = writable
    MADE.append(array)
    return array if device_type is None else FakeDeviceArray(array, device_type)


def ok(n):
    MADE.append(np.full(n, MARK))
    return MADE[-1]


def ro(n, device_type=None):
    return bad(n, device_type, writable=False)


def idx(n, aligned=False):
    return np.zeros(n, np.int64) if aligned else bad(n, dtype=np.int64, writable=False)


ALIGNED = "{} must be 8-byte aligned".format
# One misaligned argument per call: index, read-only and writable vectors (the
# fuzz tries every cone method with misaligned arrays).
CASES = [
    (lambda m: m.NonnegativeConeCpp(2).hmatrix_csr_values_into(
        ok(2), ok(2), idx(3), idx(2, True), ok(2)), ALIGNED("indptr")),
    (lambda m: m.PsdConeCpp(1).hmatrix_coo_values_into(
        ok(1), ok(1), idx(2, True), idx(2), ok(2)), ALIGNED("col_indices")),
    (lambda m: m.ExponentialConeCpp(1).hmatrix_coo_values_into(
        ok(3), ok(3), idx(2, True), idx(2, True), bad(2)), ALIGNED("values")),
    (lambda m: m.NonnegativeConeCpp(2).nt_scaling_matrix_batch_into(ok(4), ro(4), ok(8), 2),
     ALIGNED("z")),
    (lambda m: m.psd_smat_into(ro(3), ok(4), 2), ALIGNED("svec")),
    (lambda m: m.psd_svec_into(ok(4), bad(3), 2), ALIGNED("output")),
    # In the check order: a wrong length, then an unsupported device, come first ...
    (lambda m: m.ZeroConeCpp(4).violation(ro(5)), "input expected 4 entries, got 5"),
    (lambda m: m.ZeroConeCpp(4).violation(ro(4, CUDA_HOST)), "input must be on CPU or CUDA"),
    # ... an argument's alignment before the next argument's length ...
    (lambda m: m.ZeroConeCpp(2).nt_scaling_matrix_batch_into(ro(2), ok(3), ok(5), 1),
     ALIGNED("s")),
    # ... and before the same-device, runtime, host-only and domain checks.
    (lambda m: m.ZeroConeCpp(4).project_into(ok(4), bad(4, CUDA)), ALIGNED("output")),
    (lambda m: m.ZeroConeCpp(4).violation(ro(4, CUDA)), ALIGNED("input")),
    (lambda m: m.ZeroConeCpp(2).nt_scaling_matrix(ro(2, CUDA), ok(2)), ALIGNED("s")),
    (lambda m: m.SecondOrderConeCpp(2).unit_vector_into(2, bad(2)), ALIGNED("output")),
]


@pytest.mark.parametrize("call, message", CASES)
def test_misaligned_arrays_are_refused_in_order_and_untouched(m, call, message):
    MADE.clear()
    with pytest.raises(RuntimeError) as err:
        call(m)
    assert str(err.value) == message
    assert all((a == MARK).all() for a in MADE)


def test_empty_arrays_are_accepted_wherever_they_point(m):
    empty_ro, empty_out = ro(0), bad(0)
    zero = m.ZeroConeCpp(0)
    assert zero.violation(empty_ro) == 0.0 and zero.contains(empty_ro)
    zero.project_into(empty_ro, empty_out)
    m.NonnegativeConeCpp(0).nt_scaling_matrix_batch_into(empty_ro, empty_ro, empty_out, 5)
    m.ZeroConeCpp(2).hmatrix_coo_values_into(np.zeros(2), np.zeros(2), idx(0), idx(0), empty_out)


# Each call has no element to read or write, whatever its count. Run in a
# child process with a time limit, so that a walk over the count fails the
# test instead of hanging the suite (an unoptimised build keeps such a loop).
DEGENERATE = [
    "m.ZeroConeCpp(0).nt_scaling_matrix_batch_into(e, e, e, 2**64 - 1)",
    "m.NonnegativeConeCpp(0).nt_scaling_matrix_batch_into(e, e, e, 2**62)",
    "m.ZeroConeCpp(0).nt_scaling_matrix_array(e, e)",
    "m.SecondOrderConeCpp(2**30).nt_scaling_matrix_batch_custom_into(e, e, e, 0)",
    "m.ExponentialConeCpp(2**20).nt_scaling_matrix_batch_into(e, e, e, 0)",
    "m.psd_svec_into(e, e, 0)",
    "m.psd_smat(e, 0)",
]


def test_degenerate_sizes_return_at_once():
    code = ("import json, time\nimport numpy as np\n"
            "from dravik.mirel.cones.cpp import _cpp_cuda as m\n"
            "e, seconds = np.zeros(0), []\n"
            f"for call in {DEGENERATE!r}:\n"
            "    start = time.perf_counter()\n"
            "    eval(call)\n"
            "    seconds.append(time.perf_counter() - start)\n"
            "print(json.dumps(seconds))\n")
    seconds = json.loads(run_python(code, timeout=60))
    assert [call for call, s in zip(DEGENERATE, seconds) if s > 0.1] == []
