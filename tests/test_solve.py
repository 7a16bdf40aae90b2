"""The reference solver (demo/solve.py) against CVXOPT's conelp on the same data: the same
status, optimal values to 1e-7 relative, CVXOPT's iteration count +-3, the same first
iterates, and a returned point that is feasible and in the cone in the caller's row order. The KKT refresh must leave the
G and A entries of the cone rows alone."""
import functools

import numpy as np
import pytest
import scipy.sparse as sp
import solve_problems as problems
from solve_problems import svec

import solve  # noqa: E402  demo/solve.py, on the path through solve_problems

pytest.importorskip("cvxopt", reason="CVXOPT is not importable: nothing to compare with")

TOL = {"abstol": 1e-12, "reltol": 1e-8, "feastol": 1e-8}
FAMILIES = {p.name: p for p in problems.families() + problems.infeasible()}
OPTIMAL = [name for name in FAMILIES if "infeasible" not in name]


@functools.lru_cache(maxsize=None)
def reference(name):
    return solve.cvxopt_solve(FAMILIES[name], **TOL)


def spectral_min(v, dims):
    """Smallest spectral value over the cones (zero rows skipped)."""
    out, at = [np.inf], dims["z"]
    if dims["l"]:
        out.append(v[at:at + dims["l"]].min())
    at += dims["l"]
    for q in dims["q"]:
        out.append(v[at] - np.linalg.norm(v[at + 1:at + q]))
        at += q
    for k in dims["s"]:
        X = np.zeros((k, k))
        X[np.tril_indices(k)] = v[at:at + k * (k + 1) // 2] / svec(np.ones((k, k)))
        out.append(np.linalg.eigvalsh(X + np.tril(X, -1).T)[0])
        at += k * (k + 1) // 2
    return min(out)


@pytest.mark.parametrize("name", OPTIMAL)
def test_optimal_value_and_iterations_match_cvxopt(name):
    P, ref = FAMILIES[name], reference(name)
    ours = solve.solve(P, **TOL)
    assert ours.status == ref["status"] == "optimal"
    assert abs(ours.iterations - ref["iterations"]) <= 3, (ours.iterations, ref["iterations"])
    assert abs(ours.primal_objective - ref["primal objective"]) <= 1e-7 * abs(
        ref["primal objective"])
    x, s, y, z = ours.x, ours.s, ours.y, ours.z
    scale = max(1.0, np.abs(P.h).max(), np.abs(P.c).max())
    assert np.abs(P.G @ x + s - P.h).max() <= 1e-6 * scale
    assert np.abs(P.A @ x - P.b).max(initial=0.0) <= 1e-6 * scale
    assert np.abs(P.G.T @ z + P.A.T @ y + P.c).max() <= 1e-6 * scale
    assert np.all(s[:P.dims["z"]] == 0.0)
    assert min(spectral_min(s, P.dims), spectral_min(z, P.dims)) > 0.0
    assert P.c @ x == pytest.approx(ours.primal_objective, rel=1e-12)


@pytest.mark.parametrize("name", OPTIMAL)
def test_first_iterates_are_cvxopts(name):
    """With CVXOPT's centering count the method is conelp's step for step: after three
    iterations x and y agree to rounding, so any fault in a cone operation shows here even
    where it would only cost an iteration or two in the end."""
    P = FAMILIES[name]
    ours, ref = solve.solve(P, max_iterations=3), solve.cvxopt_solve(P, maxiters=3)
    assert ours.iterations == ref["iterations"] == 3
    x = np.array(ref["x"]).ravel()
    assert np.abs(ours.x - x).max() <= 1e-8 * np.abs(x).max()
    if P.b.size:
        assert np.abs(ours.y - np.array(ref["y"]).ravel()[:P.b.size]).max() <= 1e-8 * max(
            1.0, np.abs(ours.y).max())


@pytest.mark.parametrize("name", ["primal infeasible", "dual infeasible"])
def test_infeasibility_certificates_match_cvxopt(name):
    P, ref = FAMILIES[name], reference(name)
    ours = solve.solve(P, **TOL)
    assert ours.status == ref["status"] == name
    assert abs(ours.iterations - ref["iterations"]) <= 3
    if name == "primal infeasible":   # h'z + b'y = -1, G'z + A'y = 0, z in K*
        assert P.h @ ours.z == pytest.approx(-1.0)
        assert np.abs(P.G.T @ ours.z).max() <= 1e-7
    else:                              # c'x = -1, G x + s = 0, s in K
        assert P.c @ ours.x == pytest.approx(-1.0)
        assert np.abs(P.G @ ours.x + ours.s).max() <= 1e-7


@pytest.mark.parametrize("name", ["robust LP", "SOCP", "LP+SOC+PSD", "LP+SOC+PSD x10000"])
def test_centering_by_barrier_degree_reaches_the_same_optimum(name):
    """mu from the kit's degree (one per second-order cone) takes another path, same end."""
    ours, ref = solve.solve(FAMILIES[name], centering="degree", **TOL), reference(name)
    assert ours.status == "optimal"
    assert abs(ours.primal_objective - ref["primal objective"]) <= 1e-7 * abs(
        ref["primal objective"])


@pytest.mark.parametrize("name", ["robust LP", "LP+SOC+PSD"])
def test_kkt_refresh_keeps_coupling_entries(name):
    """After the last refresh K is still [[0, A', G'], [A, 0, 0], [G, 0, -W^2]]: every A and G
    entry (G's fill the cone rows beside the blocks) is the caller's, and -W^2 is exactly
    symmetric, negative on the diagonal of every cone and zero between cones."""
    P = FAMILIES[name]
    kkt = solve.solve(P, **TOL).kkt
    K, off = kkt.matrix().toarray(), kkt.row_offset
    G = P.G[kkt.cones.perm]
    block = K[off:, off:].copy()
    K[off:, off:] = 0.0
    assert np.array_equal(K, sp.bmat([[None, P.A.T, G.T], [P.A, None, None],
                                      [G, None, sp.csr_matrix(block.shape)]]).toarray())
    assert np.array_equal(block, block.T)
    for g in kkt.cones.groups:
        for b in range(g.batch):
            rows = slice(g.offset + b * g.cone.rows, g.offset + (b + 1) * g.cone.rows)
            if g.label != "zero":
                assert np.all(np.diag(block[rows, rows]) < 0)
            block[rows, rows] = 0.0
    assert not block.any()
