"""Zero cone on host arrays: every operation, its edge cases and the
parallel-loop thresholds."""
import numpy as np
import pytest

from conftest import run_python

ZERO_PAIR = "zero-cone NT scaling requires zero primal and dual vectors"


@pytest.mark.parametrize("n", [0, 1, 8192, 8193, 50000])
def test_projection_writes_positive_zeros(m, rng, n):
    x = rng.standard_normal(n)
    out = np.full(n, -1.0)
    m.ZeroConeCpp(n).project_into(x, out)
    assert np.all(out == 0.0) and not np.any(np.signbit(out))


def test_projection_in_place(m):
    x = np.array([1.0, -2.0, np.nan])
    m.ZeroConeCpp(3).project_into(x, x)
    assert list(x) == [0.0, 0.0, 0.0]


@pytest.mark.parametrize("n", [0, 1, 7, 8192, 8193, 100000])
def test_violation_is_the_euclidean_norm(m, rng, n):
    x = rng.standard_normal(n)
    assert m.ZeroConeCpp(n).violation(x) == pytest.approx(np.sqrt(np.sum(x * x)), rel=1e-13)


def test_violation_below_threshold_is_the_plain_left_to_right_sum(m, rng):
    x = rng.standard_normal(8192) * 10.0 ** rng.integers(-8, 8, 8192)
    total = 0.0
    for v in x.tolist():
        total += v * v
    assert m.ZeroConeCpp(8192).violation(x) == np.sqrt(total)


@pytest.mark.parametrize("x, atol, expected", [
    ([1e-8, -1e-8, 0.0], 1e-8, True),
    ([0.0, 1.5e-8, 0.0], 1e-8, False),
    ([0.0, np.nan, 0.0], 1e-8, True),
    ([np.inf, 0.0, 0.0], 1e300, False),
    ([0.0, 0.0, 0.0], -1e-8, False),
    ([0.0, 0.0, 0.0], 0.0, True),
])
def test_membership(m, x, atol, expected):
    assert m.ZeroConeCpp(3).contains(np.array(x), atol) is expected


def test_empty_cone(m):
    cone = m.ZeroConeCpp(0)
    empty = np.zeros(0)
    cone.project_into(empty, empty)
    assert cone.violation(empty) == 0.0
    assert cone.contains(empty, -1.0) is True
    with pytest.raises(RuntimeError, match="^unit vector index out of range$"):
        cone.unit_vector(0)


@pytest.mark.parametrize("index", [0, 3, 4])
def test_unit_vectors_agree_in_all_three_forms(m, index):
    cone = m.ZeroConeCpp(5)
    expected = np.eye(5)[index]
    out = np.full(5, 9.0)
    cone.unit_vector_into(index, out)
    assert cone.unit_vector(index) == list(expected)
    assert np.array_equal(cone.unit_vector_array(index), expected)
    assert np.array_equal(out, expected)


@pytest.mark.parametrize("form", ["unit_vector", "unit_vector_array"])
def test_unit_vector_index_out_of_range(m, form):
    with pytest.raises(RuntimeError, match="^unit vector index out of range$"):
        getattr(m.ZeroConeCpp(5), form)(5)


@pytest.mark.parametrize("entry, ok", [(1e-11, True), (1e-9, False), (np.nan, True)])
@pytest.mark.parametrize("where", ["s", "z"])
def test_nt_scaling_zero_test(m, entry, ok, where):
    cone = m.ZeroConeCpp(3)
    zero, bumped = np.zeros(3), np.array([0.0, entry, 0.0])
    s, z = (bumped, zero) if where == "s" else (zero, bumped)
    out = np.full(9, 7.0)
    calls = [lambda: cone.nt_scaling_matrix(s, z), lambda: cone.nt_scaling_matrix_array(s, z),
             lambda: cone.nt_scaling_matrix_into(s, z, out),
             lambda: cone.nt_scaling_matrix_batch_into(s, z, out, 1)]
    for call in calls:
        if ok:
            result = call()
            if result is not None:
                assert np.array_equal(np.reshape(result, (3, 3)), np.eye(3))
        else:
            with pytest.raises(RuntimeError, match=f"^{ZERO_PAIR}$"):
                call()
    assert np.array_equal(out, np.eye(3).ravel()) if ok else np.all(out == 7.0)


@pytest.mark.parametrize("dim, batch", [(2, 3), (1, 1), (3, 0), (0, 4), (5, 2000), (100, 90)])
def test_batch_writes_identity_blocks(m, dim, batch):
    s = np.zeros(dim * batch)
    out = np.full(dim * dim * batch, 3.0)
    m.ZeroConeCpp(dim).nt_scaling_matrix_batch_into(s, s, out, batch)
    assert np.array_equal(out.reshape(batch, dim, dim), np.broadcast_to(np.eye(dim), (batch, dim, dim)))


def test_batch_zero_test_covers_every_item(m):
    s = np.zeros(2 * 3)
    s[5] = 1e-5  # last entry of the last item
    out = np.full(12, 3.0)
    with pytest.raises(RuntimeError, match=ZERO_PAIR):
        m.ZeroConeCpp(2).nt_scaling_matrix_batch_into(np.zeros(6), s, out, 3)
    assert np.all(out == 3.0)


def test_into_is_the_batch_of_one(m):
    cone = m.ZeroConeCpp(2)
    for call in (cone.nt_scaling_matrix_into, lambda s, z, o: cone.nt_scaling_matrix_batch_into(s, z, o, 1)):
        with pytest.raises(RuntimeError, match="^output expected 4 entries, got 3$"):
            call(np.zeros(2), np.zeros(2), np.zeros(3))


THREADS_SCRIPT = """
import numpy as np
from dravik.mirel.cones.cpp import _cpp_cuda as m
rng = np.random.default_rng(7)
for n in (8192, 8193, 100001):
    x = rng.standard_normal(n)
    out = np.full(n, 1.0)
    m.ZeroConeCpp(n).project_into(x, out)
    print(n, repr(m.ZeroConeCpp(n).violation(x)), int(np.count_nonzero(out)))
dim, batch = 3, 5000
s = np.zeros(dim * batch)
out = np.full(dim * dim * batch, 2.0)
m.ZeroConeCpp(dim).nt_scaling_matrix_batch_into(s, s, out, batch)
print(out.sum(), np.count_nonzero(out))
"""


def test_results_do_not_depend_on_the_thread_count():
    one = run_python(THREADS_SCRIPT, OMP_NUM_THREADS=1).split("\n")
    three = run_python(THREADS_SCRIPT, OMP_NUM_THREADS=3).split("\n")
    # At or below the threshold every loop runs on one thread: identical bits.
    assert one[0] == three[0]
    for a, b in zip(one[1:3], three[1:3]):
        na, va, za = a.split()
        nb, vb, zb = b.split()
        assert (na, za) == (nb, zb) == (na, "0")
        assert float(va) == pytest.approx(float(vb), rel=1e-13)
    assert one[3] == three[3] == "15000.0 15000"
