"""The main job at a small size: every check the demo makes (CSR = COO,
H s = z, the refreshed matrix equal to SciPy's assembly of the dense NT
blocks, projection onto the product cone) must hold, so a broken fill fails
the suite and not only the demo."""
import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "demo"))
import kkt_refresh  # noqa: E402


@pytest.mark.parametrize("seed", [3, 11])
def test_small_refresh_passes_every_check(seed):
    lines = []
    summary = kkt_refresh.run(scale=0.03, iterations=3, seed=seed, device="cpu", out=lines.append)
    assert summary["ok"], "\n".join(lines)
    assert summary["csr_equals_coo"] and summary["max_reference_gap"] == 0.0
    assert lines[-1] == "result: all checks passed"
