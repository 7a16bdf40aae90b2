"""The reference solver with its cone work on CUDA arrays (CuPy or PyTorch): the same
iterations and optimal value as on the host."""
import pytest
import solve_problems as problems

import solve  # noqa: E402  demo/solve.py, on the path through solve_problems


@pytest.mark.parametrize("name", ["LP+SOC+PSD", "robust LP", "SOCP"])
def test_device_solve_matches_host(gpu, name):
    P = next(p for p in problems.families() if p.name == name)
    if P.dims["s"] and solve.host_only(solve.PsdCone):
        pytest.skip("the PSD cones run on the NumPy stand-in, host arrays only")
    host = solve.solve(P)
    device = solve.solve(P, arrays=solve.DeviceArrays(gpu))
    assert device.status == host.status == "optimal"
    assert device.iterations == host.iterations
    assert device.primal_objective == pytest.approx(host.primal_objective, rel=1e-9)
