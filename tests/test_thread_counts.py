"""Host results under 1 and 3 OpenMP threads, each threshold tried on both
sides: loops that write disjoint entries give the same bits; a sum is the
in-order sum on one thread (and at or below its threshold) and otherwise one
of the values the two-stage reduction allows."""
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


def normal(rng, n):
    return rng.standard_normal(n)


# class: (sizes, threshold, input, projection reference, violation terms,
#         (dim, batch) pairs and the s, z of a batch)
CONES = {
    "ZeroConeCpp": ((8192, 8193, 100001), 8192, normal, np.zeros_like, lambda x: x * x,
                    [(3, 5000)], lambda rng, n: (np.zeros(n), np.zeros(n))),
    "NonnegativeConeCpp": ((8192, 8193, 20000), 8192, normal, lambda x: np.where(x > 0, x, 0.0),
                           lambda x: np.where(x < 0, x * x, 0.0), [(3, 2800)],
                           lambda rng, n: (rng.uniform(0.5, 2, n), rng.uniform(0.5, 2, n))),
    "ExponentialConeCpp": ((4096, 4097, 9000), 4096, exp_mixed, project_reference,
                           violation_reference, [(1, 4096), (1, 4097), (3, 1366)],
                           lambda rng, n: (interior_blocks(rng, n // 3),
                                           interior_blocks(rng, n // 3))),
}


SOC_SIZES = (8192, 8193, 20000)  # one team from 8193 on: tail norm, barrier, block


def failing_batches(m, rng):
    """Batches whose last (zero, nonnegative) or middle (second-order, dim
    300) item fails on a team: (class, dim, batch, s, z)."""
    zero_s = np.zeros(3 * 5000)
    zero_s[-1] = 1e-5
    nn_s = rng.uniform(0.5, 2, 3 * 2800)
    nn_s[-1] = 0.0
    soc_s, soc_z = soc_interior_batch(300, 3, rng)
    soc_z[300:600] = np.concatenate([[5.0], np.full(299, 1.0)])  # not interior
    return [("ZeroConeCpp", 3, 5000, np.zeros(3 * 5000), zero_s),
            ("NonnegativeConeCpp", 3, 2800, nn_s, np.ones(3 * 2800)),
            ("SecondOrderConeCpp", 300, 3, soc_s, soc_z)]


def compute(m, rng):
    """Runs in a fresh interpreter under the thread count being tried."""
    results = {}
    for kind in ("between", "inside", "polar"):
        for n in SOC_SIZES:
            cone, x = m.SecondOrderConeCpp(n), soc_sample(kind, n, rng)
            out = np.full(n, 7.0)
            cone.project_into(x, out)
            in_place = x.copy()
            cone.project_into(in_place, in_place)
            results.update({f"soc_point{kind}{n}x": x, f"soc_point{kind}{n}project": out,
                            f"soc_point{kind}{n}in_place": in_place,
                            f"soc_point{kind}{n}violation": np.array([cone.violation(x)]),
                            f"soc_point{kind}{n}contains": np.array([cone.contains(x)])})
    for cls, dim, batch, s, z in failing_batches(m, rng):
        out = np.full(dim * dim * batch, 7.0)
        try:
            getattr(m, cls)(dim).nt_scaling_matrix_batch_into(s, z, out, batch)
            results[f"{cls}fail_message"] = np.array(["no failure"])
        except RuntimeError as error:
            results[f"{cls}fail_message"] = np.array([str(error)])
        results.update({f"{cls}fail_out": out, f"{cls}fail_s": s, f"{cls}fail_z": z})
    for cls, (sizes, _, make, _, _, batches, pair) in CONES.items():
        for n in sizes:
            cone = getattr(m, cls)(n)
            x, out = make(rng, n), np.full(cone.rows, 7.0)
            cone.project_into(x, out)
            probe = out.copy()
            probe[-1] = -1.0  # only the last item's last entry is outside
            results.update({f"{cls}x{n}": x, f"{cls}project{n}": out,
                            f"{cls}violation{n}": np.array([cone.violation(x)]),
                            f"{cls}contains{n}": np.array([cone.contains(probe)])})
        for dim, batch in batches:
            cone = getattr(m, cls)(dim)
            s, z = pair(rng, cone.rows * batch)
            results[f"{cls}batch{dim}x{batch}"] = np.full(cone.rows ** 2 * batch, 7.0)
            cone.nt_scaling_matrix_batch_into(s, z, results[f"{cls}batch{dim}x{batch}"], batch)
    for n in (2048, 2049):  # diagonal fills run on a team above 2048
        results[f"identity{n}"] = m.ZeroConeCpp(n).nt_scaling_matrix_array(np.zeros(n), np.zeros(n))
    for n in (256, 300):  # the second-order NT columns run on a team from 256
        s, z = rng.standard_normal(n), rng.standard_normal(n)
        s[0], z[0] = 2 * np.linalg.norm(s[1:]), 3 * np.linalg.norm(z[1:])
        results[f"soc{n}"] = m.SecondOrderConeCpp(n).nt_scaling_matrix_array(s, z)
    return results


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    """The results under 1 and under 3 threads, computed once for the module."""
    folder = tmp_path_factory.mktemp("thread_counts")
    return {threads: run_with_threads(folder, threads) for threads in (1, 3)}


def run_with_threads(tmp_path, threads):
    path = tmp_path / f"results_{threads}.npz"
    run_python("import numpy as np\nfrom dravik.mirel.cones.cpp import _cpp_cuda as m\n"
               "from test_thread_counts import compute\n"
               f"np.savez({str(path)!r}, **compute(m, np.random.default_rng(2024)))\n",
               OMP_NUM_THREADS=threads)
    with np.load(path) as data:
        return {k: data[k] for k in data.files}


def two_stage_sums(terms, threads):
    """Sums over contiguous blocks in index order (the first n % T blocks one
    item longer), combined in any order starting from 0.0."""
    q, r = divmod(len(terms), threads)
    ends = np.cumsum([0] + [q + 1] * r + [q] * (threads - r))
    partials = [sequential_sum(terms[b:e]) for b, e in zip(ends, ends[1:])]
    return {sequential_sum(order) for order in itertools.permutations(partials)}


def test_results_do_not_depend_on_the_thread_count(runs):
    one, three = runs[1], runs[3]
    for key in one:
        if "violation" not in key and not key.startswith("soc_point"):  # tail norms are sums
            np.testing.assert_array_equal(one[key], three[key], err_msg=key)
    for cls, (sizes, threshold, _, project, terms, _, _) in CONES.items():
        for n in sizes:
            x = one[f"{cls}x{n}"]
            np.testing.assert_array_equal(one[f"{cls}project{n}"], project(x))
            assert not one[f"{cls}contains{n}"][0]
            total = terms(x)
            assert 0 < one[f"{cls}violation{n}"][0] == math.sqrt(sequential_sum(total)) < math.inf
            allowed = two_stage_sums(total, 3) if n > threshold else {sequential_sum(total)}
            assert three[f"{cls}violation{n}"][0] in {math.sqrt(v) for v in allowed}
    assert np.array_equal(one["ZeroConeCppbatch3x5000"], np.tile(np.eye(3).ravel(), 5000))
    for n in (2048, 2049):
        assert np.array_equal(one[f"identity{n}"], np.eye(n))


def soc_allowed(x, threads):
    """The projections and violations the two-stage sums allow: the tail norm
    over all n items (element 0 adds 0.0), then the residual sum."""
    def sums(terms):
        return two_stage_sums(terms, threads) if len(x) > 8192 else {sequential_sum(terms)}

    projections = [soc_projection(x, math.sqrt(v)) for v in sums(np.r_[0.0, x[1:] ** 2])]
    violations = {math.sqrt(v) for p in projections for v in sums((x - p) ** 2)}
    return projections, violations


def test_second_order_team_gives_the_two_stage_bits(runs):
    """Projection and violation run their tail norm, barrier and block loop
    on one team: the projection is exactly the one of an allowed tail norm,
    the violation an allowed sum of that projection's residuals."""
    for threads, results in runs.items():
        for kind in ("between", "inside", "polar"):
            for n in SOC_SIZES:
                x = results[f"soc_point{kind}{n}x"]
                projections, violations = soc_allowed(x, threads)
                for key in ("project", "in_place"):
                    got = results[f"soc_point{kind}{n}{key}"]
                    assert any(np.array_equal(got, p) for p in projections), (threads, kind, n)
                assert results[f"soc_point{kind}{n}violation"][0] in violations
                assert results[f"soc_point{kind}{n}contains"][0] == (kind == "inside")
                if kind == "inside":
                    assert results[f"soc_point{kind}{n}violation"][0] == 0.0


def test_failing_batch_on_a_team_writes_only_earlier_items(m, runs):
    three = runs[3]
    for cls, dim in (("ZeroConeCpp", 3), ("NonnegativeConeCpp", 3), ("SecondOrderConeCpp", 300)):
        message = str(three[f"{cls}fail_message"][0])
        out, s, z = (three[f"{cls}fail_{key}"] for key in ("out", "s", "z"))
        if cls == "SecondOrderConeCpp":  # the first item written, the rest untouched
            assert message == "SOC NT scaling requires strictly interior cone vectors"
            first = m.SecondOrderConeCpp(dim).nt_scaling_matrix_array(s[:dim], z[:dim]).ravel()
            assert np.array_equal(out[:dim * dim], first)
            assert np.all(out[dim * dim:] == 7.0)
        else:  # the input tests come before any write
            assert "requires" in message and np.all(out == 7.0), (cls, message)
