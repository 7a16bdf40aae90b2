"""Both demos at a small size. The KKT refresh: every check it makes (CSR = COO, H s = z, the
refreshed matrix equal to SciPy's assembly of the dense NT blocks, projection onto the
product cone) must hold, so a broken fill fails the suite and not only the demo. The solve:
optimal, with CVXOPT's value and iteration count when CVXOPT is importable."""
import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "demo"))
import kkt_refresh  # noqa: E402
import solve  # noqa: E402


@pytest.mark.parametrize("seed", [3, 11])
def test_small_refresh_passes_every_check(seed):
    lines = []
    summary = kkt_refresh.run(scale=0.03, iterations=3, seed=seed, device="cpu", out=lines.append)
    assert summary["ok"], "\n".join(lines)
    assert summary["csr_equals_coo"] and summary["max_reference_gap"] == 0.0
    assert lines[-1] == "result: all checks passed"


def test_small_solve_agrees_with_cvxopt():
    lines = []
    result, reference = solve.run(scale=0.05, seed=3, device="cpu", out=lines.append)
    text = "\n".join(lines)
    assert result.status == "optimal", text
    assert len(result.times) == result.iterations
    assert sum(line.split()[:3] == ["it", "pcost", "dcost"] for line in lines) == 1
    if reference is None:
        assert lines[-1] == "CVXOPT: not importable, no comparison"
        return
    assert reference["status"] == "optimal" and abs(reference["iterations"]
                                                    - result.iterations) <= 3
    assert abs(reference["primal objective"] - result.primal_objective) <= 1e-6 * abs(
        reference["primal objective"])
