"""Second-order cone tour: projection, violation, membership, one NT scaling
matrix (checking W s = z) and the device method the batch form would pick."""
import numpy as np


def show(m):
    print("-- second-order cone --")
    cone = m.SecondOrderConeCpp(3)
    x = np.array([0.0, 3.0, 4.0])
    p = np.empty(3)
    cone.project_into(x, p)
    print(f"project {x.tolist()} -> {p.tolist()}")
    print(f"violation {cone.violation(x):.6f}, contains {cone.contains(x)}; "
          f"projection contained: {cone.contains(p)}")

    cone4 = m.SecondOrderConeCpp(4)
    s = np.array([3.0, 1.0, 0.5, -1.0])
    z = np.array([2.0, 0.3, -0.4, 0.8])
    w = cone4.nt_scaling_matrix_array(s, z)
    print("NT scaling W for s =", s.tolist(), "z =", z.tolist())
    print(np.array2string(w, precision=4, suppress_small=True))
    print(f"W s = {np.round(w @ s, 12).tolist()} (z), symmetric: {np.allclose(w, w.T)}")
    for dim, batch in ((4, 1), (4, 64), (48, 64)):
        method = m.SecondOrderConeCpp(dim).nt_scaling_matrix_default_method(batch)
        print(f"device method for dim {dim}, batch {batch}: {method}")


if __name__ == "__main__":
    from dravik.mirel.cones.cpp import _cpp_cuda

    show(_cpp_cuda)
