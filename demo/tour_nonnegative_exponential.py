"""Tour section for the nonnegative and exponential cones: projection,
violation, membership and one NT scaling each, on NumPy arrays."""
import numpy as np


def show(m):
    print("-- NonnegativeConeCpp(4) --")
    cone = m.NonnegativeConeCpp(4)
    x = np.array([-1.5, 0.0, 2.0, -0.25])
    out = np.empty(4)
    cone.project_into(x, out)
    print(f"project {x} -> {out}")
    print(f"violation {cone.violation(x):.6f} (norm of the negative part)")
    print(f"contains: {cone.contains(x)}; after projection: {cone.contains(out)}")
    s, z = np.array([1.0, 2.0, 4.0, 0.5]), np.array([2.0, 1.0, 1.0, 3.0])
    w = cone.nt_scaling_matrix_array(s, z)
    print(f"NT scaling diag(z / s) = {np.diag(w)}; W s = {w @ s} (= z)")

    print("-- ExponentialConeCpp(2): blocks (x, y, z), y exp(x / y) <= z --")
    cone = m.ExponentialConeCpp(2)
    x = np.array([0.0, 1.0, 0.0, 2.0, -3.0, 4.0])
    out = np.empty(6)
    cone.project_into(x, out)
    print(f"project {x} -> {out}")
    print(f"violation {cone.violation(x):.6f}")
    print(f"contains: {cone.contains(x)}; after projection: {cone.contains(out)}")
    s = np.array([0.0, 1.0, 2.0, -1.0, 1.0, 1.0])
    z = np.array([0.0, 1.0, 3.0, 0.5, 2.0, 5.0])
    w = cone.nt_scaling_matrix_array(s, z)
    print("NT scaling (block diagonal, each block maps the s-block onto the z-block):")
    print(np.array2string(w, precision=4, suppress_small=True))
    print(f"W s = {w @ s} (= z)")


if __name__ == "__main__":
    from dravik.mirel.cones.cpp import _cpp_cuda

    show(_cpp_cuda)
