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


class Arrays:
    """Makes the arrays of one call, filled with MARK, and remembers them."""

    def __init__(self):
        self.made = []

    def _keep(self, array, device_type):
        self.made.append(array)
        return array if device_type is None else FakeDeviceArray(array, device_type)

    def ok(self, n, device_type=None):
        return self._keep(np.full(n, MARK), device_type)

    def bad(self, n, device_type=None, writable=True, dtype=np.float64):
        """n entries one byte past an 8-byte boundary."""
        raw = bytearray(8 * n + 8)
        array = np.frombuffer(raw, dtype=dtype, count=n, offset=1)
        array[:] = MARK
        array.flags.writeable = writable
        return self._keep(array, device_type)

    def ro(self, n):
        return self.bad(n, writable=False)

    # Index vectors are read-only, so they are not among the arrays whose
    # contents the test compares afterwards.
    def idx(self, n):
        """A read-only int64 index vector one byte past an 8-byte boundary."""
        array = np.frombuffer(bytearray(8 * n + 8), dtype=np.int64, count=n, offset=1)
        array.flags.writeable = False
        return array

    def good_idx(self, n):
        return np.zeros(n, dtype=np.int64)


ALIGNED = "{} must be 8-byte aligned".format

# (argument kind, call, message). One misaligned argument per call, made by
# `a.ro` (read-only vector), `a.bad` (writable vector) or `a.idx` (index
# vector, taken by the sparse Hessian fills).
CASES = [
    ("index", lambda m, a: m.NonnegativeConeCpp(2).hmatrix_csr_values_into(
        a.ok(2), a.ok(2), a.idx(3), a.good_idx(2), a.ok(2)), ALIGNED("indptr")),
    ("index", lambda m, a: m.NonnegativeConeCpp(2).hmatrix_csr_values_into(
        a.ok(2), a.ok(2), a.good_idx(3), a.idx(2), a.ok(2)), ALIGNED("indices")),
    ("index", lambda m, a: m.ZeroConeCpp(2).hmatrix_coo_values_into(
        a.ok(2), a.ok(2), a.idx(2), a.good_idx(2), a.ok(2)), ALIGNED("row_indices")),
    ("index", lambda m, a: m.PsdConeCpp(1).hmatrix_coo_values_into(
        a.ok(1), a.ok(1), a.good_idx(2), a.idx(2), a.ok(2)), ALIGNED("col_indices")),
    ("writable", lambda m, a: m.ExponentialConeCpp(1).hmatrix_coo_values_into(
        a.ok(3), a.ok(3), a.good_idx(2), a.good_idx(2), a.bad(2)), ALIGNED("values")),
    ("read-only", lambda m, a: m.ZeroConeCpp(4).violation(a.ro(4)), ALIGNED("input")),
    ("read-only", lambda m, a: m.PsdConeCpp(2).contains(a.ro(3)), ALIGNED("input")),
    ("read-only", lambda m, a: m.NonnegativeConeCpp(3).project_into(a.ro(3), a.ok(3)),
     ALIGNED("input")),
    ("read-only", lambda m, a: m.SecondOrderConeCpp(2).nt_scaling_matrix(a.ro(2), a.ok(2)),
     ALIGNED("s")),
    ("read-only", lambda m, a: m.ExponentialConeCpp(1).nt_scaling_matrix_array(a.ok(3), a.ro(3)),
     ALIGNED("z")),
    ("read-only", lambda m, a: m.NonnegativeConeCpp(2).nt_scaling_matrix_batch_into(
        a.ok(4), a.ro(4), a.ok(8), 2), ALIGNED("z")),
    ("read-only", lambda m, a: m.psd_svec(a.ro(4), 2), ALIGNED("matrix")),
    ("read-only", lambda m, a: m.psd_smat_into(a.ro(3), a.ok(4), 2), ALIGNED("svec")),
    ("writable", lambda m, a: m.ExponentialConeCpp(1).project_into(a.ok(3), a.bad(3)),
     ALIGNED("output")),
    ("writable", lambda m, a: m.PsdConeCpp(2).unit_vector_into(0, a.bad(3)), ALIGNED("output")),
    ("writable", lambda m, a: m.SecondOrderConeCpp(2).nt_scaling_matrix_into(
        a.ok(2), a.ok(2), a.bad(4)), ALIGNED("output")),
    ("writable", lambda m, a: m.psd_svec_into(a.ok(4), a.bad(3), 2), ALIGNED("output")),
    # In the check order: a wrong length, then an unsupported device, come first ...
    ("order", lambda m, a: m.ZeroConeCpp(4).violation(a.ro(5)), "input expected 4 entries, got 5"),
    ("order", lambda m, a: m.ZeroConeCpp(4).violation(a.bad(4, CUDA_HOST)),
     "input must be on CPU or CUDA"),
    # ... an argument's alignment before the next argument's length ...
    ("order", lambda m, a: m.ZeroConeCpp(2).nt_scaling_matrix_batch_into(
        a.ro(2), a.ok(3), a.ok(5), 1), ALIGNED("s")),
    # ... and before the same-device, runtime, host-only and domain checks.
    ("order", lambda m, a: m.ZeroConeCpp(4).project_into(a.ok(4), a.bad(4, CUDA)),
     ALIGNED("output")),
    ("order", lambda m, a: m.ZeroConeCpp(4).violation(a.bad(4, CUDA)), ALIGNED("input")),
    ("order", lambda m, a: m.ZeroConeCpp(2).nt_scaling_matrix(a.bad(2, CUDA), a.ok(2)),
     ALIGNED("s")),
    ("order", lambda m, a: m.NonnegativeConeCpp(2).nt_scaling_matrix_batch_into(
        a.ok(2), a.ok(2), a.bad(4), 1), ALIGNED("output")),
    ("order", lambda m, a: m.SecondOrderConeCpp(2).unit_vector_into(2, a.bad(2)),
     ALIGNED("output")),
]


@pytest.mark.parametrize("kind, call, message", CASES,
                         ids=[f"{kind}-{i}" for i, (kind, _, _) in enumerate(CASES)])
def test_misaligned_arrays_are_refused_in_order_and_untouched(m, kind, call, message):
    arrays = Arrays()
    with pytest.raises(RuntimeError) as err:
        call(m, arrays)
    assert str(err.value) == message
    assert all((a == MARK).all() for a in arrays.made)


def test_empty_arrays_are_accepted_wherever_they_point(m):
    a = Arrays()
    empty_ro, empty_out = a.bad(0, writable=False), a.bad(0)
    zero = m.ZeroConeCpp(0)
    assert zero.violation(empty_ro) == 0.0 and zero.contains(empty_ro)
    zero.project_into(empty_ro, empty_out)
    m.NonnegativeConeCpp(0).nt_scaling_matrix_batch_into(empty_ro, empty_ro, empty_out, 5)


# Each call has no element to read or write, whatever its count. Run in a
# child process with a time limit, so that a walk over the count fails the
# test instead of hanging the suite (an unoptimised build keeps such a loop).
DEGENERATE = [
    "m.ZeroConeCpp(0).nt_scaling_matrix_batch_into(e, e, e, 2**62)",
    "m.ZeroConeCpp(0).nt_scaling_matrix_batch_into(e, e, e, 2**64 - 1)",
    "m.NonnegativeConeCpp(0).nt_scaling_matrix_batch_into(e, e, e, 2**62)",
    "m.NonnegativeConeCpp(0).nt_scaling_matrix_into(e, e, e)",
    "m.ZeroConeCpp(0).nt_scaling_matrix_array(e, e)",
    "m.SecondOrderConeCpp(2**30).nt_scaling_matrix_batch_into(e, e, e, 0)",
    "m.SecondOrderConeCpp(2**30).nt_scaling_matrix_batch_custom_into(e, e, e, 0)",
    "m.ExponentialConeCpp(2**20).nt_scaling_matrix_batch_into(e, e, e, 0)",
    "m.psd_svec_into(e, e, 0)",
    "m.psd_smat_into(e, e, 0)",
    "m.psd_svec(e, 0)",
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
    slow = [(call, s) for call, s in zip(DEGENERATE, seconds) if s > 0.1]
    assert not slow
