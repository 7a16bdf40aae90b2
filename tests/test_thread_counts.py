"""Host results under 1 and 3 OpenMP threads, each threshold tried on both
sides: loops that write disjoint entries give the same bits; a sum is the
in-order sum on one thread (and at or below its threshold) and otherwise one
of the values the two-stage reduction allows; a failing batch on a team
writes only what it documents."""
import itertools
import math

import numpy as np
import pytest
from cone_cases import sequential_sum
from processes import run_python
from samples import (interior_blocks, project_reference, soc_interior_batch, soc_projection,
                     soc_sample, violation_reference)


def exp_mixed(rng, blocks):
    """Half interior blocks, half outside ones (y = +-[0.2, 2]): violation terms not all 0."""
    rest = blocks - blocks // 2
    y = rng.choice([-1.0, 1.0], rest) * rng.uniform(0.2, 2.0, rest)
    outer = np.stack([rng.standard_normal(rest), y, rng.standard_normal(rest)], 1).ravel()
    return np.concatenate([interior_blocks(rng, blocks // 2), outer])


# class: (sizes, threshold, input, projection reference, violation terms, (dim, batch) pairs)
CONES = {
    "ZeroConeCpp": ((8192, 8193, 100001), 8192, lambda rng, n: rng.standard_normal(n),
                    np.zeros_like, lambda x: x * x, [(3, 5000)]),
    "NonnegativeConeCpp": ((8192, 8193, 20000), 8192, lambda rng, n: rng.standard_normal(n),
                           lambda x: np.where(x > 0, x, 0.0), lambda x: np.where(x < 0, x * x, 0.0),
                           [(3, 2800)]),
    "ExponentialConeCpp": ((4096, 4097, 9000), 4096, exp_mixed, project_reference,
                           violation_reference, [(1, 4096), (1, 4097), (3, 1366)]),
}
PAIRS = {"ZeroConeCpp": lambda rng, n: (np.zeros(n), np.zeros(n)),
         "NonnegativeConeCpp": lambda rng, n: (rng.uniform(0.5, 2, n), rng.uniform(0.5, 2, n)),
         "ExponentialConeCpp": lambda rng, n: (interior_blocks(rng, n // 3),
                                               interior_blocks(rng, n // 3))}
SOC_SIZES = (8192, 8193, 20000)  # one team from 8193 on: tail norm, barrier, block


def compute(m, rng):
    """Runs in a fresh interpreter under the thread count being tried."""
    out = {}

    def project(cone, x, key):
        out[key + "x"], out[key + "p"], in_place = x, np.full(cone.rows, 7.0), x.copy()
        cone.project_into(x, out[key + "p"])
        cone.project_into(in_place, in_place)
        out[key + "in_place"], out[key + "v"] = in_place, np.array([cone.violation(x)])
    for kind, n in itertools.product(("between", "inside", "polar"), SOC_SIZES):
        project(m.SecondOrderConeCpp(n), soc_sample(kind, n, rng), f"soc{kind}{n}")
    for cls, (sizes, _, make, _, _, batches) in CONES.items():
        for n in sizes:
            cone = getattr(m, cls)(n)
            project(cone, make(rng, n), f"{cls}{n}")
            probe = out[f"{cls}{n}p"].copy()
            probe[-1] = -1.0  # only the last item's last entry is outside
            out[f"{cls}{n}contains"] = np.array([cone.contains(probe)])
        for dim, batch in batches:
            cone = getattr(m, cls)(dim)
            s, z = PAIRS[cls](rng, cone.rows * batch)
            out[f"{cls}batch{dim}x{batch}"] = np.full(cone.rows ** 2 * batch, 7.0)
            cone.nt_scaling_matrix_batch_into(s, z, out[f"{cls}batch{dim}x{batch}"], batch)
    for n in (2048, 2049):  # diagonal fills run on a team above 2048
        out[f"identity{n}"] = m.ZeroConeCpp(n).nt_scaling_matrix_array(np.zeros(n), np.zeros(n))
    for n in (256, 300):  # the second-order NT columns run on a team from 256
        s, z = soc_interior_batch(n, 1, rng)
        out[f"nt_soc{n}"] = m.SecondOrderConeCpp(n).nt_scaling_matrix_array(s, z)
    # Batches whose last (zero, nonnegative) or middle (second-order) item fails on a team.
    zero_z, nn_s = np.zeros(3 * 5000), rng.uniform(0.5, 2, 3 * 2800)
    zero_z[-1], nn_s[-1] = 1e-5, 0.0
    soc_s, soc_z = soc_interior_batch(300, 3, rng)
    soc_z[300:600] = np.r_[5.0, np.ones(299)]  # not interior
    for cls, dim, batch, s, z in [("ZeroConeCpp", 3, 5000, np.zeros(3 * 5000), zero_z),
                                  ("NonnegativeConeCpp", 3, 2800, nn_s, np.ones(3 * 2800)),
                                  ("SecondOrderConeCpp", 300, 3, soc_s, soc_z)]:
        out[f"{cls}fail"] = np.full(dim * dim * batch, 7.0)
        try:
            getattr(m, cls)(dim).nt_scaling_matrix_batch_into(s, z, out[f"{cls}fail"], batch)
            out[f"{cls}message"] = np.array(["no failure"])
        except RuntimeError as error:
            out[f"{cls}message"] = np.array([str(error)])
        out[f"{cls}fail_s"], out[f"{cls}fail_z"] = s, z
    return out


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    """The results under 1 and under 3 threads, computed once for the module."""
    results = {}
    for threads in (1, 3):
        path = tmp_path_factory.mktemp("threads") / "results.npz"
        run_python("import numpy as np\nfrom dravik.mirel.cones.cpp import _cpp_cuda as m\n"
                   "from test_thread_counts import compute\n"
                   f"np.savez({str(path)!r}, **compute(m, np.random.default_rng(2024)))\n",
                   OMP_NUM_THREADS=threads)
        with np.load(path) as data:
            results[threads] = {k: data[k] for k in data.files}
    return results


def allowed_sums(terms, threads, threshold):
    """The in-order sum, or above the threshold any combination (from 0.0) of
    the in-order sums over contiguous blocks, the first n % T one item longer."""
    if threads == 1 or len(terms) <= threshold:
        return {sequential_sum(terms)}
    q, r = divmod(len(terms), threads)
    ends = np.cumsum([0] + [q + 1] * r + [q] * (threads - r))
    partials = [sequential_sum(terms[b:e]) for b, e in zip(ends, ends[1:])]
    return {sequential_sum(order) for order in itertools.permutations(partials)}


def test_results_do_not_depend_on_the_thread_count(runs):
    one, three = runs[1], runs[3]
    for key in one:
        if not key.endswith("v") and not key.startswith("soc"):  # sums and tail norms
            np.testing.assert_array_equal(one[key], three[key], err_msg=key)
    for cls, (sizes, threshold, _, project, terms, _) in CONES.items():
        for n in sizes:
            x = one[f"{cls}{n}x"]
            np.testing.assert_array_equal(one[f"{cls}{n}p"], project(x))
            np.testing.assert_array_equal(one[f"{cls}{n}in_place"], project(x))
            assert not one[f"{cls}{n}contains"][0]
            for threads, results in runs.items():
                allowed = {math.sqrt(v) for v in allowed_sums(terms(x), threads, threshold)}
                assert results[f"{cls}{n}v"][0] in allowed
    assert np.array_equal(one["ZeroConeCppbatch3x5000"], np.tile(np.eye(3).ravel(), 5000))
    for n in (2048, 2049):
        assert np.array_equal(one[f"identity{n}"], np.eye(n))


def test_second_order_team_gives_the_two_stage_bits(runs):
    """Projection and violation run their tail norm, barrier and block loop
    on one team: the projection is exactly the one of an allowed tail norm,
    the violation an allowed sum of that projection's residuals."""
    for (threads, results), kind, n in itertools.product(runs.items(), ("between", "inside",
                                                                          "polar"), SOC_SIZES):
        x = results[f"soc{kind}{n}x"]
        projections = [soc_projection(x, math.sqrt(v))
                       for v in allowed_sums(np.r_[0.0, x[1:] ** 2], threads, 8192)]
        for key in ("p", "in_place"):
            assert any(np.array_equal(results[f"soc{kind}{n}{key}"], p) for p in projections)
        violations = {math.sqrt(v) for p in projections
                      for v in allowed_sums((x - p) ** 2, threads, 8192)}
        assert results[f"soc{kind}{n}v"][0] in violations
        assert kind != "inside" or results[f"soc{kind}{n}v"][0] == 0.0


def test_failing_batch_on_a_team_writes_only_earlier_items(m, runs):
    three = runs[3]
    for cls in ("ZeroConeCpp", "NonnegativeConeCpp"):  # the input tests come before any write
        assert "requires" in str(three[f"{cls}message"][0]) and np.all(three[f"{cls}fail"] == 7.0)
    out, s, z = (three[f"SecondOrderConeCpp{key}"] for key in ("fail", "fail_s", "fail_z"))
    assert str(three["SecondOrderConeCppmessage"][0]) == \
        "SOC NT scaling requires strictly interior cone vectors"
    first = m.SecondOrderConeCpp(300).nt_scaling_matrix_array(s[:300], z[:300]).ravel()
    assert np.array_equal(out[:300 * 300], first) and np.all(out[300 * 300:] == 7.0)
