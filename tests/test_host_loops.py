"""The vector loops of the host operations in both builds (AVX2 and the
baseline x86-64 one, run by name through the test-only extension): each
gives the bits of a NumPy/Python reference that adds in index order, so the
two builds agree to the bit; the membership scans find a failing entry in
any chunk; no fused multiply-add was compiled in."""
import shutil
import struct
import subprocess

import numpy as np
import pytest
from cone_cases import sequential_sum
from samples import soc_interior_batch

from dravik.mirel.cones.cpp import _cpp_cuda

SPECIALS = [np.nan, np.inf, -np.inf, 0.0, -0.0, 1e-170, -1e-170, 5e-324, -1e300]


def bits(value):
    """Exact bits of a float, bool, tuple or array; every NaN reads alike
    (which NaN an addition of two NaNs keeps is not part of the result)."""
    if isinstance(value, tuple):
        return tuple(bits(v) for v in value)
    if isinstance(value, (bool, np.bool_)):
        return bool(value)
    if isinstance(value, np.ndarray):
        return np.where(np.isnan(value), np.nan, value).view(np.int64).tolist()
    return "nan" if np.isnan(value) else struct.pack("<d", value)


def loop_input(kind, n, rng):
    x = rng.standard_normal(n)
    if kind == "specials":  # NaN, infinities, signed zeros, squares that underflow
        x[::7] = np.resize(SPECIALS, x[::7].size)
    elif kind == "sparse":  # runs of zero terms between nonzero ones
        x[rng.random(n) < 0.85] = 0.0
    elif kind == "zeros":
        x[:] = 0.0
        x[1::2] = -0.0
    return x


def references(x, bound, k):
    """What every build returns for host_loop_results(build, x, bound, k)."""
    with np.errstate(all="ignore"):
        squares, residual = x * x, (x - x * k) ** 2
        return {
            "clip": np.where(x > 0, x, 0.0), "scale": x * k,
            "sum_sq": sequential_sum(squares), "sum_sq_from_k": sequential_sum([k, *squares]),
            "sum_sq_pair": (sequential_sum(squares), sequential_sum(squares[::-1])),
            "negative_sum_sq": sequential_sum(np.where(x < 0, squares, 0.0)),
            "residual_sum_sq": sequential_sum(residual),
            "residual_sum_sq_from_k": sequential_sum([k, *residual]),
            "any_below": bool(np.any(x < bound)), "any_abs_above": bool(np.any(np.abs(x) > bound)),
            "any_at_most": bool(np.any(x <= bound)),
        }


@pytest.mark.parametrize("n", [0, 1, 3, 4, 5, 8, 11, 257, 1003])
@pytest.mark.parametrize("kind", ["normal", "specials", "sparse", "zeros"])
def test_builds_give_the_in_order_reference_bits(hooks, rng, n, kind):
    x = loop_input(kind, n, rng)
    bound, k = (0.0, 1.0) if kind == "zeros" else (-0.4, 0.37)
    expected = {key: bits(v) for key, v in references(x, bound, k).items()}
    for build in hooks.host_loop_builds():
        got = hooks.host_loop_results(build, x, bound, k)
        assert {key: bits(v) for key, v in got.items()} == expected, build
        assert not np.signbit(got["clip"]).any()


@pytest.mark.parametrize("n", [1003, 9000])  # the serial scans; from 8193 on the team's
@pytest.mark.parametrize("where", ["first", "chunk end", "chunk start", "middle", "third",
                                   "last"])
@pytest.mark.parametrize("entry, fails", [(-2e-8, True), (-1e-8, False), (np.nan, False)])
def test_membership_scans_find_one_entry_in_any_chunk(m, n, where, entry, fails):
    at = {"first": 0, "chunk end": 255, "chunk start": 256, "middle": n // 2, "third": n // 3,
          "last": n - 1}[where]
    x = np.full(n, 0.5)
    x[at] = entry
    assert m.NonnegativeConeCpp(n).contains(x) is not fails
    y = np.zeros(n)
    y[at] = -entry
    assert m.ZeroConeCpp(n).contains(y) is not fails


def test_avx2_build_is_used_where_the_cpu_has_it(hooks):
    with open("/proc/cpuinfo") as f:
        has_avx2 = any(line.startswith("flags") and " avx2" in line for line in f)
    assert hooks.host_loop_builds() == (["baseline", "avx2"] if has_avx2 else ["baseline"])
    assert hooks.host_loops_in_use() == ("avx2" if has_avx2 else "baseline")


@pytest.mark.parametrize("n", [1, 2, 7, 8, 9, 17, 300])
def test_soc_nt_columns_builds_agree_with_the_module(m, hooks, rng, n):
    """Column groups of 8 with a partial last group; from n = 256 on a team."""
    batch = 2
    s, z = soc_interior_batch(n, batch, rng)
    expected = np.full(n * n * batch, np.nan)
    m.SecondOrderConeCpp(n).nt_scaling_matrix_batch_into(s, z, expected, batch)
    for build in hooks.host_loop_builds():
        got = hooks.soc_nt_scaling_batch(build, s, z, n, batch)
        assert bits(got.ravel()) == bits(expected), build


@pytest.mark.skipif(shutil.which("objdump") is None, reason="objdump is not installed")
def test_no_fused_multiply_add_was_compiled(hooks):
    """-ffp-contract=off holds in every build of the loops, the AVX2 one included."""
    for library in (_cpp_cuda.__file__, hooks.__file__):
        listing = subprocess.run(["objdump", "-d", "--no-show-raw-insn", library],
                                 capture_output=True, text=True, check=True).stdout
        if "avx2" in hooks.host_loop_builds():
            assert "ymm" in listing, library  # the AVX2 build is there
        fused = [line for line in listing.splitlines()
                 if any(op in line for op in ("vfmadd", "vfmsub", "vfnmadd", "vfnmsub"))]
        assert not fused, (library, fused[:5])
