"""Zero cone on the host against NumPy: violation (a norm) and batched identity scaling."""
import numpy as np
from timing import best_time, report

from dravik.mirel.cones.cpp import _cpp_cuda as m


def main():
    rng = np.random.default_rng(0)
    for n in (4096, 1 << 20):
        x = rng.standard_normal(n)
        cone = m.ZeroConeCpp(n)
        report(f"zero violation n={n}", best_time(lambda: cone.violation(x), number=20),
               best_time(lambda: np.linalg.norm(x), number=20), "numpy", cone="zero",
               operation="violation", size=n, nbytes=8 * n)
    dim, batch = 8, 20000
    cone = m.ZeroConeCpp(dim)
    s = np.zeros(dim * batch)
    out = np.empty(dim * dim * batch)

    def numpy_identities():
        out.reshape(batch, dim, dim)[:] = np.eye(dim)

    report(f"zero NT scaling batch dim={dim} batch={batch}",
           best_time(lambda: cone.nt_scaling_matrix_batch_into(s, s, out, batch)),
           best_time(numpy_identities), "numpy")
