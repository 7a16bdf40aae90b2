"""The module's face: docstring, capability answers, constructors, argument
kinds (no implicit conversion), keywords, defaults, return forms, exported
symbols. Names, order and signatures are the stub's (test_stubs)."""
import os
import re
import shutil
import subprocess

import numpy as np
import pytest

from processes import ROOT


def test_docstring_and_capabilities(m):
    """The answers tell what this build can do: the CUDA build has cuBLAS and
    cuSOLVER, the CPU-only build neither, no runtime and never a device."""
    assert "\n" not in m.__doc__.strip() and "dravik.mirel.cones.cpp" in m.__doc__
    cuda_build = m.has_cublas()
    assert m.cuda_runtime_version() == ("cuda-runtime-13" if cuda_build else "none")
    assert m.host_blas_backend() == "AUTO"
    assert (m.has_host_blas(), m.has_cusolver()) == (True, cuda_build)
    assert isinstance(m.has_cuda(), bool) and (cuda_build or not m.has_cuda())


@pytest.mark.parametrize("make, expected", [
    (lambda m: m.ZeroConeCpp(0), (0, 0)), (lambda m: m.ZeroConeCpp(2**64 - 1), (2**64 - 1,) * 2),
    (lambda m: m.NonnegativeConeCpp(dim=7), (7, 7)), (lambda m: m.SecondOrderConeCpp(7), (7, 7)),
    (lambda m: m.ExponentialConeCpp(), (3, 3)), (lambda m: m.ExponentialConeCpp(blocks=4), (3, 12)),
    (lambda m: m.PsdConeCpp(1), (1, 1)), (lambda m: m.PsdConeCpp(10), (10, 55)),
    (lambda m: m.SecondOrderConeCpp(0), "second-order cone dim must be positive"),
    (lambda m: m.ExponentialConeCpp(0), "exponential cone block count must be positive"),
    (lambda m: m.PsdConeCpp(0), "PSD cone dim must be positive"),
])
def test_constructors_sizes_and_refusals(m, make, expected):
    if isinstance(expected, str):
        with pytest.raises(RuntimeError, match=f"^{expected}$"):
            make(m)
    else:
        assert (make(m).dim, make(m).rows) == expected


@pytest.mark.parametrize("bad", [-1, 2**64, 1.0, None])
def test_unsigned_parameters_reject_other_values_but_take_numpy_integers(m, bad):
    for call in (m.ZeroConeCpp, m.ExponentialConeCpp, m.ZeroConeCpp(3).unit_vector):
        with pytest.raises(TypeError):
            call(bad)
    for index in (np.uint64(1), np.int64(1), np.int32(1)):
        assert m.ZeroConeCpp(3).unit_vector(index) == [0.0, 1.0, 0.0]


def _bad_arrays():
    readonly = np.zeros(4)
    readonly.flags.writeable = False
    return {"float32": np.zeros(4, dtype=np.float32), "int64": np.zeros(4, dtype=np.int64),
            "two-dimensional": np.zeros((2, 2)), "non-contiguous": np.zeros(8)[::2],
            "list": [0.0] * 4, "None": None, "read-only": readonly}


@pytest.mark.parametrize("kind, as_output", [(k, o) for k in _bad_arrays() for o in (0, 1)
                                              if o or k != "read-only"])
def test_arrays_of_the_wrong_kind_are_type_errors_and_nothing_is_written(m, kind, as_output):
    bad, good = _bad_arrays()[kind], np.full(4, 7.0)
    with pytest.raises(TypeError):
        m.ZeroConeCpp(4).project_into(*((good, bad) if as_output else (bad, good)))
    assert np.all(good == 7.0)
    assert not isinstance(bad, np.ndarray) or not np.any(bad)


def test_keywords_defaults_integer_atol_and_read_only_inputs(m):
    cone = m.ZeroConeCpp(2)
    out = np.ones(2)
    cone.project_into(output=out, input=np.ones(2), stream=0)
    assert list(out) == [0.0, 0.0]
    x = np.array([1e-8, -1e-8])
    x.flags.writeable = False
    assert cone.contains(input=x)             # default atol 1e-8
    assert not cone.contains(x, atol=0) and cone.contains(np.zeros(2), 0)   # integer atol
    with pytest.raises(TypeError):
        cone.contains(x, tol=1.0)
    with pytest.raises(TypeError):
        cone.violation(x, x)


def test_return_forms(m):
    cone = m.ZeroConeCpp(2)
    z = np.zeros(2)
    flat = cone.nt_scaling_matrix(z, z)
    assert type(flat) is list and flat == [1.0, 0.0, 0.0, 1.0] and type(flat[0]) is float
    arr = cone.nt_scaling_matrix_array(z, z)
    assert arr.shape == (2, 2) and arr.dtype == np.float64 and arr.flags.c_contiguous
    assert type(cone.violation(z)) is float and type(cone.contains(z)) is bool
    assert cone.nt_scaling_matrix_into(z, z, np.zeros(4)) is None


def test_only_the_entry_and_the_device_interface_are_exported(m):
    """Every declared dravik_*_cuda function is there (test_build_variants); nothing else is."""
    nm = shutil.which("nm")
    if nm is None:
        pytest.skip("nm (binutils) is not installed")
    listing = subprocess.run([nm, "-D", "--defined-only", m.__file__], capture_output=True,
                             text=True, check=True).stdout
    names = {line.split()[-1] for line in listing.splitlines() if line.strip()}
    assert "PyInit__cpp_cuda" in names
    assert [n for n in names if not re.fullmatch(r"dravik_[a-z0-9_]+|PyInit__cpp_cuda", n)] == []


@pytest.mark.parametrize("flags", [["-I", "/usr/local/cuda/include"], ["-DDRAVIK_CPU_ONLY"]],
                         ids=["with-cuda-headers", "cpu-only"])
def test_interface_header_compiles_as_c(tmp_path, flags):
    """As C, with the CUDA headers or, in the CPU-only form, without any."""
    cc = shutil.which("gcc") or shutil.which("cc")
    if cc is None or ("-DDRAVIK_CPU_ONLY" not in flags and
                      not os.path.isdir("/usr/local/cuda/include")):
        pytest.skip("no C compiler or CUDA headers")
    source = tmp_path / "caller.c"
    source.write_text('#include "cuda/dravik_cuda.h"\n'
                      "int main(void) { cudaStream_t s = 0; dravik_zero_project_cuda(0, 0, 0, 0, s);\n"
                      "  return dravik_cuda_available() ? 0 : 1; }\n")
    subprocess.run([cc, "-std=c11", "-Wall", "-Werror", "-fsyntax-only", "-I",
                    os.path.join(ROOT, "cpp"), *flags, str(source)], check=True)
