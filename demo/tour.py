"""A short tour of _cpp_cuda: what this build can do, each cone on NumPy
arrays, and how a misuse is reported."""
import importlib
import pathlib
import sys

import numpy as np

from dravik.mirel.cones.cpp import _cpp_cuda as m

np.set_printoptions(precision=4, suppress=True)


def capabilities():
    print("== capabilities ==")
    print(f"  CUDA device usable : {m.has_cuda()}")
    print(f"  CUDA runtime       : {m.cuda_runtime_version()}")
    print(f"  host BLAS backend  : {m.host_blas_backend()}  (cuBLAS {m.has_cublas()}, "
          f"cuSOLVER {m.has_cusolver()})")


def zero_cone():
    print("== zero cone {0}^4 ==")
    cone = m.ZeroConeCpp(4)
    x = np.array([3.0, -4.0, 0.0, 1e-9])
    out = np.empty(4)
    cone.project_into(x, out)
    print(f"  x = {x}")
    print(f"  projection        : {out}")
    print(f"  violation ||x||   : {cone.violation(x):.6g}")
    print(f"  contains(x)       : {cone.contains(x)}   contains(1e-9 e4): "
          f"{cone.contains(np.array([0, 0, 0, 1e-9]))}")
    print(f"  unit_vector(2)    : {cone.unit_vector(2)}")
    zero = np.zeros(4)
    print(f"  NT scaling (s = z = 0):\n{cone.nt_scaling_matrix_array(zero, zero)}")


def caught_errors():
    print("== misuse is reported, nothing is written ==")
    cone = m.ZeroConeCpp(4)
    out = np.full(4, 7.0)
    for label, call in [
        ("wrong length", lambda: cone.project_into(np.zeros(5), out)),
        ("float32 output", lambda: cone.project_into(np.zeros(4), out.astype(np.float32))),
        ("nonzero pair", lambda: cone.nt_scaling_matrix(np.ones(4), np.zeros(4))),
    ]:
        try:
            call()
        except (RuntimeError, TypeError) as err:
            first = str(err).splitlines()[0]
            print(f"  {label:<15}: {type(err).__name__}: {first}")
    print(f"  output still      : {out}")


TOURS = ["tour_nonnegative_exponential", "tour_second_order", "tour_psd"]


def other_cones():
    # Each cone family has its own demo/tour_<cones>.py with show(m).
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
    for name in TOURS:
        importlib.import_module(name).show(m)


if __name__ == "__main__":
    capabilities()
    zero_cone()
    other_cones()
    caught_errors()
