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


def check_cases(r):
    """(method, args, message, reaches_device) for a cone of r entries, in
    check order: lengths before devices, arguments in parameter order, then
    the same-device rules, then the runtime. Cases with reaches_device=True
    would pass every check and must only run where no CUDA device is usable."""
    mm, b = r * r, 2
    length = "{} expected {} entries, got {}".format
    batch = "nt_scaling_matrix_batch_into"
    return [
        ("project_into", (on_device(r + 1, CUDA_HOST), h(r + 1)), length("input", r, r + 1), 0),
        ("project_into", (on_device(r, CUDA_HOST), h(r)), "input must be on CPU or CUDA", 0),
        ("project_into", (h(r), h(r - 1)), length("output", r, r - 1), 0),
        ("project_into", (h(r), on_device(r, CUDA_MANAGED)), "output must be on CPU or CUDA", 0),
        ("project_into", (h(r), cuda(r)), SAME_OUT, 0),
        ("project_into", (cuda(r), cuda(r, device_id=1)), SAME_OUT, 0),
        ("project_into", (cuda(r), cuda(r)), RUNTIME, 1),
        ("violation", (cuda(r + 2),), length("input", r, r + 2), 0),
        ("violation", (cuda(r),), RUNTIME, 1),
        ("contains", (cuda(r),), RUNTIME, 1),
        (batch, (h(r), h(r * b), h(mm * b), b), length("s", r * b, r), 0),
        (batch, (h(r * b), cuda(r), h(mm * b), b), length("z", r * b, r), 0),
        (batch, (h(r * b), h(r * b), h(mm), b), length("output", mm * b, mm), 0),
        (batch, (h(r * b), cuda(r * b), cuda(mm * b), b), SAME_IN, 0),
        (batch, (cuda(r * b), cuda(r * b), h(mm * b), b), SAME_OUT, 0),
        (batch, (cuda(r * b), cuda(r * b), cuda(mm * b), b), RUNTIME, 1),
        ("nt_scaling_matrix_into", (cuda(r), cuda(r), cuda(mm)), RUNTIME, 1),
        ("nt_scaling_matrix", (cuda(r + 1), cuda(r)), length("s", r, r + 1), 0),
        ("nt_scaling_matrix", (cuda(r), cuda(r)), "s must be a CPU vector for dense NT scaling", 0),
        ("nt_scaling_matrix_array", (h(r), cuda(r)), "z must be a CPU vector for dense NT scaling",
         0),
        ("unit_vector_into", (0, cuda(r)), "output must be a CPU vector for dense helper output", 0),
        ("unit_vector_into", (r, h(r + 1)), length("output", r, r + 1), 0),
        ("unit_vector_array", (r,), "unit vector index out of range", 0),
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
