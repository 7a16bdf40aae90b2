"""The PSD cone in the tour: svec/smat packing, projection, violation and
membership of a symmetric matrix held in svec form."""
import numpy as np


def show(m):
    print("== PSD cone of 2 x 2 matrices (svec form) ==")
    a = np.array([[1.0, 2.0], [2.0, 1.0]])            # eigenvalues 3 and -1
    x = m.psd_svec(a.ravel(), 2)
    print(f"  A = {a.tolist()}  ->  svec(A) = {x}   (off-diagonal times sqrt 2)")
    print(f"  smat(svec(A))     : {m.psd_smat(x, 2).tolist()}")
    cone = m.PsdConeCpp(2)
    out = np.empty(cone.rows)
    cone.project_into(x, out)
    print(f"  projection        : {out}  =  svec({np.round(m.psd_smat(out, 2), 4).tolist()})")
    print(f"  violation         : {cone.violation(x):.6g}   (the eigenvalue -1 clipped)")
    print(f"  contains(A)       : {cone.contains(x)}   contains(projection): "
          f"{cone.contains(out)}")
    print(f"  unit_vector(1)    : {cone.unit_vector(1)}   (rows = {cone.rows})")


if __name__ == "__main__":
    from dravik.mirel.cones.cpp import _cpp_cuda

    np.set_printoptions(precision=4, suppress=True)
    show(_cpp_cuda)
