"""Helpers shared by the cone test files: the argument-check cases every cone
has (length, placement and same-device messages in check order, with fake
device arrays), sequential and two-stage sums, and runs of the module under a
given OpenMP thread count."""
import itertools
import textwrap

import numpy as np
from conftest import run_python
from fake_dlpack import CUDA_HOST, CUDA_MANAGED, cuda, on_device

RUNTIME = "CUDA runtime is required for CUDA cone arrays"
SAME_OUT = "input and output must live on the same device"
SAME_IN = "input vectors must live on the same device"


def h(n):
    return np.zeros(n)


def check_cases(rows):
    """(label, method, args, message, needs_no_gpu) for a cone of `rows` entries.

    Cases whose arrays would pass every check and reach the device carry
    needs_no_gpu=True: they are only run where no CUDA device is usable."""
    r, b = rows, 2
    mm = r * r
    return [
        # Length before device, first argument first.
        ("project len input", "project_into", (on_device(r + 1, CUDA_HOST), h(r + 1)),
         f"input expected {r} entries, got {r + 1}", False),
        ("project device input", "project_into", (on_device(r, CUDA_HOST), h(r)),
         "input must be on CPU or CUDA", False),
        ("project len output", "project_into", (h(r), h(r - 1)),
         f"output expected {r} entries, got {r - 1}", False),
        ("project device output", "project_into", (h(r), on_device(r, CUDA_MANAGED)),
         "output must be on CPU or CUDA", False),
        ("project host/cuda", "project_into", (h(r), cuda(r)), SAME_OUT, False),
        ("project two gpus", "project_into", (cuda(r), cuda(r, device_id=1)), SAME_OUT, False),
        ("project runtime", "project_into", (cuda(r), cuda(r)), RUNTIME, True),
        ("violation len", "violation", (cuda(r + 2),), f"input expected {r} entries, got {r + 2}",
         False),
        ("violation runtime", "violation", (cuda(r),), RUNTIME, True),
        ("contains device", "contains", (on_device(r, CUDA_HOST),), "input must be on CPU or CUDA",
         False),
        ("contains runtime", "contains", (cuda(r),), RUNTIME, True),
        # Batch forms: s, z, output lengths, then s~z, then s~output.
        ("batch len s", "nt_scaling_matrix_batch_into", (h(r), h(r * b), h(mm * b), b),
         f"s expected {r * b} entries, got {r}", False),
        ("batch len z", "nt_scaling_matrix_batch_into", (h(r * b), cuda(r), h(mm * b), b),
         f"z expected {r * b} entries, got {r}", False),
        ("batch len output", "nt_scaling_matrix_batch_into", (h(r * b), h(r * b), h(mm), b),
         f"output expected {mm * b} entries, got {mm}", False),
        ("batch s/z", "nt_scaling_matrix_batch_into", (h(r * b), cuda(r * b), cuda(mm * b), b),
         SAME_IN, False),
        ("batch s/output", "nt_scaling_matrix_batch_into",
         (cuda(r * b), cuda(r * b), h(mm * b), b), SAME_OUT, False),
        ("batch runtime", "nt_scaling_matrix_batch_into",
         (cuda(r * b), cuda(r * b), cuda(mm * b), b), RUNTIME, True),
        ("into len output", "nt_scaling_matrix_into", (h(r), h(r), h(mm + 1)),
         f"output expected {mm} entries, got {mm + 1}", False),
        ("into runtime", "nt_scaling_matrix_into", (cuda(r), cuda(r), cuda(mm)), RUNTIME, True),
        # Dense forms are host only; s is looked at before z.
        ("dense len s", "nt_scaling_matrix", (cuda(r + 1), cuda(r)),
         f"s expected {r} entries, got {r + 1}", False),
        ("dense cuda s", "nt_scaling_matrix", (cuda(r), cuda(r)),
         "s must be a CPU vector for dense NT scaling", False),
        ("dense cuda z", "nt_scaling_matrix_array", (h(r), cuda(r)),
         "z must be a CPU vector for dense NT scaling", False),
        ("dense device z", "nt_scaling_matrix_array", (h(r), on_device(r, CUDA_HOST)),
         "z must be on CPU or CUDA", False),
        ("unit cuda output", "unit_vector_into", (0, cuda(r)),
         "output must be a CPU vector for dense helper output", False),
        ("unit len before index", "unit_vector_into", (r, h(r + 1)),
         f"output expected {r} entries, got {r + 1}", False),
        ("unit index", "unit_vector_array", (r,), "unit vector index out of range", False),
    ]


def sequential_sum(terms):
    total = 0.0
    for t in terms:
        total += float(t)
    return total


def split(n, threads):
    """Contiguous blocks of n items over `threads` threads (the first n % T take one more)."""
    q, r = divmod(n, threads)
    ranges = []
    for t in range(threads):
        begin = t * (q + 1) if t < r else r + t * q
        ranges.append((begin, begin + (q + 1 if t < r else q)))
    return ranges


def two_stage_sums(terms, threads):
    """Every value the two-stage reduction can give: per-thread sums in index
    order, combined in any order starting from 0.0."""
    partials = [sequential_sum(terms[b:e]) for b, e in split(len(terms), threads)]
    return {sequential_sum(order) for order in itertools.permutations(partials)}


def run_with_threads(tmp_path, body, threads):
    """Runs `body` (which fills a dict `results` of arrays, with `np`, `m` and
    `rng` in scope) under OMP_NUM_THREADS=threads; returns the results."""
    path = tmp_path / f"results_{threads}.npz"
    code = (
        "import numpy as np\n"
        "from dravik.mirel.cones.cpp import _cpp_cuda as m\n"
        "rng = np.random.default_rng(2024)\n"
        "results = {}\n" + textwrap.dedent(body) + f"\nnp.savez({str(path)!r}, **results)\n"
    )
    run_python(code, OMP_NUM_THREADS=threads)
    with np.load(path) as data:
        return {k: data[k] for k in data.files}
