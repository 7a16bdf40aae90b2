"""Helpers shared by the cone test files: the argument-check table every cone
answers (length, placement and same-device messages in check order, with fake
device arrays, the sparse fills' included), the NT scaling forms and in-order
sums."""
import numpy as np
import pytest
from fake_dlpack import CUDA, CUDA_HOST, CUDA_MANAGED, FakeDeviceArray

RUNTIME = "CUDA runtime is required for CUDA cone arrays"
SAME_OUT = "input and output must live on the same device"
SAME_IN = "input vectors must live on the same device"
MARK = 5.0  # every array of a failing call must still hold it afterwards


def h(n, dtype=np.float64):
    return np.full(n, MARK, dtype)


def dev(n, device_type=CUDA, device_id=0, dtype=np.float64):
    return FakeDeviceArray(h(n, dtype), device_type, device_id)


def fill_cases(r, layout):
    """(args, message) of a sparse fill in check order: s and z (length, then
    device), the two index arrays (device only), values (as long as indices
    for CSR, as row_indices for COO), COO col_indices, the same-device rules,
    then the runtime (before the CSR indptr length)."""
    k, csr, i = 7, layout == "csr", np.int64
    names = ("indptr", "indices") if csr else ("row_indices", "col_indices")
    n1 = r + 1 if csr else k
    odd1, odd2 = (2, k) if csr else (k, k + 2)  # fail nothing before values
    length, where = "{} expected {} entries, got {}".format, "{} must be on CPU or CUDA".format
    same = "{} sparse index must live on the same device as the cone vectors".format
    cases = [
        ((h(r + 1), dev(r + 2, CUDA_HOST), h(0, i), h(0, i), h(0)), length("s", r, r + 1)),
        ((dev(r, CUDA_MANAGED), h(r + 2), h(0, i), h(0, i), h(0)), where("s")),
        ((h(r), dev(r - 1, CUDA_HOST), h(0, i), h(0, i), h(0)), length("z", r, r - 1)),
        ((h(r), dev(r, CUDA_HOST), h(0, i), h(0, i), h(0)), where("z")),
        ((h(r), h(r), dev(n1, CUDA_HOST, 0, i), dev(k, 4, 0, i), h(k + 1)), where(names[0])),
        ((h(r), h(r), h(n1, i), dev(k, CUDA_MANAGED, 0, i), h(k + 1)), where(names[1])),
        ((dev(r), dev(r), dev(odd1, dtype=i), dev(odd2, dtype=i), dev(k + 1, CUDA_HOST)),
         length("values", k, k + 1)),
        ((dev(r), dev(r), dev(n1, dtype=i), dev(k, dtype=i), dev(k, CUDA_HOST)), where("values")),
        ((dev(r), dev(r, device_id=1), h(n1, i), h(k, i), h(k)), SAME_IN),
        ((h(r), h(r), dev(n1, dtype=i), dev(k, dtype=i), dev(k)), SAME_OUT),
        ((dev(r), dev(r), dev(n1, 2, 1, i), h(k, i), dev(k)), same("first")),
        ((h(r), h(r), h(n1, i), dev(k, dtype=i), h(k)), same("second")),
        # CUDA arrays reach the device with none of the host's domain or
        # pattern checks (these s and z fail every cone's host test).
        ((dev(r), dev(r), dev(n1, dtype=i), dev(k, dtype=i), dev(k)), RUNTIME),
    ]
    return cases + ([((dev(r), dev(r), dev(r, dtype=i), dev(k, dtype=i), dev(k)), RUNTIME)] if csr
                    else [((h(r), dev(r), h(k, i), h(k + 2, i), h(k)),
                           length("COO col_indices", k, k + 2)),
                          ((h(r), h(r), h(k, i), dev(k - 1, 2, 3, i), dev(k)),
                           length("COO col_indices", k, k - 1))])


def check_cases(r):
    """(methods, args, message) for a cone of r rows, in check order: lengths
    before devices, arguments in parameter order, then the same-device rules,
    then the runtime. Each case applies to every method listed that the cone
    has."""
    mm, b, nb, mb = r * r, 2, 2 * r, 2 * r * r
    length = "{} expected {} entries, got {}".format
    where = "{} must be on CPU or CUDA".format
    project, scalar = ["project_into"], ["violation", "contains"]
    dense = ["nt_scaling_matrix", "nt_scaling_matrix_array"]
    batch = ["nt_scaling_matrix_batch_into", "nt_scaling_matrix_batch_custom_into",
             "nt_scaling_matrix_batch_cublas_into"]
    return [
        (project, (dev(r + 1, CUDA_HOST), h(r + 1)), length("input", r, r + 1)),
        (project, (dev(r, CUDA_HOST), h(r + 1)), where("input")),
        (project, (h(r), dev(r - 1, CUDA_MANAGED)), length("output", r, r - 1)),
        (project, (h(r), dev(r, CUDA_MANAGED)), where("output")),
        (project, (h(r), dev(r)), SAME_OUT),
        (project, (dev(r), h(r)), SAME_OUT),
        (project, (dev(r), dev(r, device_id=1)), SAME_OUT),
        (project, (dev(r), dev(r)), RUNTIME),
        (scalar, (h(r + 1),), length("input", r, r + 1)),
        (scalar, (dev(r + 2, 4),), length("input", r, r + 2)),
        (scalar, (dev(r, 4),), where("input")),
        (scalar, (dev(r),), RUNTIME),
        (batch, (h(r), h(nb), h(mb), b), length("s", nb, r)),
        (batch, (h(nb), dev(r), h(mm), b), length("z", nb, r)),
        (batch, (h(nb), h(nb), dev(mm, CUDA_HOST), b), length("output", mb, mm)),
        (batch, (dev(nb, CUDA_HOST), h(r), h(mb), b), where("s")),
        (batch, (dev(nb), h(nb), dev(mb, CUDA_HOST), b), where("output")),
        (batch, (h(nb), dev(nb), dev(mb), b), SAME_IN),
        (batch, (dev(nb), dev(nb, device_id=1), dev(mb), b), SAME_IN),
        (batch, (dev(nb), dev(nb), h(mb), b), SAME_OUT),
        (batch, (h(nb), h(nb), dev(mb), b), SAME_OUT),
        (batch, (dev(nb), dev(nb), dev(mb), b), RUNTIME),
        (["nt_scaling_matrix_into"], (h(r), h(r), h(mm - 1)), length("output", mm, mm - 1)),
        (["nt_scaling_matrix_into"], (dev(r), dev(r), dev(mm)), RUNTIME),
        (dense, (dev(r + 1), h(r - 1)), length("s", r, r + 1)),
        (dense, (dev(r), h(r - 1)), "s must be a CPU vector for dense NT scaling"),
        (dense, (dev(r, CUDA_HOST), h(r)), where("s")),
        (dense, (h(r), dev(r + 1)), length("z", r, r + 1)),
        (dense, (h(r), dev(r)), "z must be a CPU vector for dense NT scaling"),
        (["unit_vector_into"], (r, dev(r + 1)), length("output", r, r + 1)),
        (["unit_vector_into"], (r, dev(r)), "output must be a CPU vector for dense helper output"),
        (["unit_vector_into"], (r, h(r)), "unit vector index out of range"),
        (["unit_vector", "unit_vector_array"], (r,), "unit vector index out of range"),
    ] + [([f"hmatrix_{layout}_values_into"], args, message) for layout in ("csr", "coo")
         for args, message in fill_cases(r, layout)]


def projected(cone, x):
    """cone.project_into(x) into a fresh output."""
    out = np.full(cone.rows, np.nan)
    cone.project_into(x, out)
    return out


def nt_forms(cone, s, z):
    """Every NT scaling form of one pair as a callable giving the flat matrix;
    the written forms start from outputs filled with MARK, kept in `outputs`."""
    outputs = []

    def written(method, *extra):
        outputs.append(np.full(cone.rows ** 2, MARK))
        getattr(cone, method)(s, z, outputs[-1], *extra)
        return outputs[-1]
    forms = [lambda: np.array(cone.nt_scaling_matrix(s, z)),
             lambda: cone.nt_scaling_matrix_array(s, z).ravel(),
             lambda: written("nt_scaling_matrix_into"),
             lambda: written("nt_scaling_matrix_batch_into", 1)]
    if hasattr(cone, "nt_scaling_matrix_batch_custom_into"):
        forms.append(lambda: written("nt_scaling_matrix_batch_custom_into", 1))
    return forms, outputs


def scaling_of(cone, s, z, written_grouping_differs=False, rtol=1e-14):
    """The flat NT scaling matrix, after checking that every form gives its
    bits. Where the written forms (into, batch) compute it otherwise than the
    list and array forms (another grouping of the terms, a closed form), each
    group shares its bits and the two groups agree to `rtol`."""
    forms, _ = nt_forms(cone, s, z)
    results = [form() for form in forms]
    first_written = 2 if written_grouping_differs else len(results)
    for group in (results[:first_written], results[first_written:]):
        for got in group[1:]:
            np.testing.assert_array_equal(got, group[0])
    if written_grouping_differs:
        np.testing.assert_allclose(results[2], results[0], rtol=rtol, atol=rtol / 10)
    return results[0]


def assert_scaling_fails(cone, s, z, message, untouched=True):
    """Every form raises `message`; unless told otherwise, no written output is touched."""
    forms, outputs = nt_forms(cone, s, z)
    for form in forms:
        with pytest.raises(RuntimeError, match=f"^{message}$"):
            form()
    assert not untouched or all((out == MARK).all() for out in outputs)


def sequential_sum(terms):
    total = 0.0
    for t in terms:
        total += float(t)
    return total
