"""Small seeded conic problems of the families the reference solver is checked on
(demo/solve.py's Problem: PSD rows in svec form, dims {'z', 'l', 'q', 's'})."""
import math
import os
import sys

import numpy as np
import scipy.sparse as sp

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "demo"))
from solve import Problem, demo_problem  # noqa: E402


def svec(X):
    r, c = np.tril_indices(X.shape[0])
    return np.where(r == c, 1.0, math.sqrt(2.0)) * X[r, c]


def interior(rng, dims):
    """A random point well inside the product cone (zero rows zero)."""
    parts = [np.zeros(dims.get("z", 0)), rng.uniform(0.5, 1.5, dims.get("l", 0))]
    for q in dims.get("q", []):
        u = rng.standard_normal(q - 1)
        parts.append(np.concatenate([[np.linalg.norm(u) + rng.uniform(0.5, 1.5)], u]))
    for k in dims.get("s", []):
        B = rng.standard_normal((k, k))
        parts.append(svec(B @ B.T / k + 0.5 * np.eye(k)))
    return np.concatenate(parts)


def rows(dims):
    return (dims.get("z", 0) + dims.get("l", 0) + sum(dims.get("q", []))
            + sum(k * (k + 1) // 2 for k in dims.get("s", [])))


def strictly_feasible(rng, n, dims, p=0, name="", density=1.0):
    """min c'x, Gx + s = h, Ax = b built around an interior primal point and an interior
    dual point, so both problems are strictly feasible and the optimum is attained."""
    m = rows(dims)
    G = sp.random(m, n, density, random_state=rng, data_rvs=rng.standard_normal).toarray()
    G[np.arange(min(m, n)), np.arange(min(m, n))] += 1.0   # full column rank
    A = rng.standard_normal((p, n))
    x0, y0 = rng.standard_normal(n), rng.standard_normal(p)
    z0 = interior(rng, dims)
    z0[:dims.get("z", 0)] = rng.standard_normal(dims.get("z", 0))   # free on the zero cone
    h = G @ x0 + interior(rng, dims)
    c = -G.T @ z0 - A.T @ y0
    return Problem(c, sp.csr_matrix(G), h, dims, A if p else None, A @ x0 if p else None, name)


def robust_lp(rng, n=8, m=12, k=4):
    """min c'x over a box, with a_i'x + ||P_i x|| <= b_i: each cone's rows of G are dense in x
    (coupling entries beside the cone's H block in the KKT)."""
    c = rng.standard_normal(n)
    G, h = [np.vstack([np.eye(n), -np.eye(n)])], [np.ones(2 * n)]
    for _ in range(m):
        a, P = rng.standard_normal(n), 0.3 * rng.standard_normal((k - 1, n))
        G.append(np.vstack([a, -P]))
        h.append(np.concatenate([[1.0 + rng.random()], np.zeros(k - 1)]))
    return Problem(c, sp.csr_matrix(np.vstack(G)), np.concatenate(h),
                   {"l": 2 * n, "q": [k] * m}, name="robust LP")


def portfolio(rng, n=12, k=4, gamma=1.0):
    """max mu'x - gamma t, 1'x = 1, x >= 0, ||F'x|| <= t."""
    mu, F = rng.uniform(0.0, 0.2, n), 0.2 * rng.standard_normal((n, k))
    c = np.concatenate([-mu, [gamma]])
    soc = np.zeros((k + 1, n + 1))
    soc[0, n], soc[1:, :n] = -1.0, -F.T
    G = np.vstack([np.hstack([-np.eye(n), np.zeros((n, 1))]), soc])
    A = np.concatenate([np.ones(n), [0.0]])[None, :]
    return Problem(c, sp.csr_matrix(G), np.zeros(n + k + 1), {"l": n, "q": [k + 1]}, A,
                   np.ones(1), "portfolio")


def graph(rng, k, p):
    return [(i, j) for i in range(k) for j in range(i) if rng.random() < p]


def maxcut(rng, k=8):
    """The max-cut SDP relaxation's dual: min sum(y) with diag(y) - L/4 >= 0."""
    W = np.zeros((k, k))
    for i, j in graph(rng, k, 0.5):
        W[i, j] = W[j, i] = rng.uniform(0.5, 1.5)
    L = np.diag(W.sum(1)) - W
    G = np.column_stack([-svec(np.diag(np.eye(k)[i])) for i in range(k)])
    return Problem(np.ones(k), sp.csr_matrix(G), svec(-L / 4), {"s": [k]}, name="max-cut SDP")


def lovasz_theta(rng, k=7):
    """theta = min t with t I - (J + sum_e x_e (E_ij + E_ji)) >= 0 (free entries on the edges)."""
    edges = graph(rng, k, 0.4)
    cols = []
    for i, j in edges:
        E = np.zeros((k, k))
        E[i, j] = E[j, i] = 1.0
        cols.append(svec(E))
    cols.append(-svec(np.eye(k)))
    c = np.zeros(len(edges) + 1)
    c[-1] = 1.0
    return Problem(c, sp.csr_matrix(np.column_stack(cols)), svec(-np.ones((k, k))), {"s": [k]},
                   name="Lovasz theta")


def families():
    """(name, Problem) for every family, seeded."""
    rng = np.random.default_rng(2024)
    mixed_dims = {"z": 2, "l": 6, "q": [3, 5, 3, 4, 3], "s": [3, 2, 3]}
    lp = strictly_feasible(rng, 10, {"l": 30}, name="LP")
    mixed = strictly_feasible(rng, 12, mixed_dims, p=2, name="LP+SOC+PSD")
    return [
        lp,
        strictly_feasible(rng, 10, {"l": 25}, p=4, name="LP with equalities"),
        robust_lp(rng),
        portfolio(rng),
        strictly_feasible(rng, 8, {"q": [4, 3, 6, 4, 3, 5]}, p=1, name="SOCP", density=0.5),
        maxcut(rng),
        lovasz_theta(rng),
        mixed,
        strictly_feasible(rng, 6, {"s": [4, 3, 4]}, p=1, name="SDP, 3 blocks"),
        demo_problem(scale=0.03, seed=5),
        lp.scaled(1e-4),
        mixed.scaled(1e4),
        robust_lp(np.random.default_rng(3)).scaled(1e-4),
    ]


def infeasible():
    """(name, Problem): one without a feasible point (|x| <= 1 and x_1 >= 2) and one unbounded
    below (min -x_1 over x >= 0, x_2 <= 1)."""
    ball = Problem(np.ones(2), sp.csr_matrix([[-1.0, 0.0], [0.0, 0.0], [-1.0, 0.0], [0.0, -1.0]]),
                   np.array([-2.0, 1.0, 0.0, 0.0]), {"l": 1, "q": [3]}, name="primal infeasible")
    ray = Problem(np.array([-1.0, 0.0]), sp.csr_matrix([[-1.0, 0.0], [0.0, -1.0], [0.0, 1.0]]),
                  np.array([0.0, 0.0, 1.0]), {"l": 3}, name="dual infeasible")
    return [ball, ray]
