"""The module's face: docstring, capability answers, registration order,
argument kinds (no implicit conversion), keywords, defaults, return forms."""
import os

import numpy as np
import pytest

from conftest import ROOT

RO = "ndarray[dtype=float64, shape=(*), order='C', writable=False]"
RW = "ndarray[dtype=float64, shape=(*), order='C']"


def test_docstring_names_the_package(m):
    assert "\n" not in m.__doc__.strip()
    assert "dravik.mirel.cones.cpp" in m.__doc__


def test_capabilities_without_gpu(m):
    assert m.cuda_runtime_version() == "cuda-runtime-13"
    assert m.host_blas_backend() == "AUTO"
    assert (m.has_host_blas(), m.has_cublas(), m.has_cusolver()) == (True, True, True)
    assert isinstance(m.has_cuda(), bool)


def test_capabilities_come_first_in_registration_order(m):
    names = [n for n in vars(m) if not n.startswith("_")]
    assert names[:7] == ["has_cuda", "cuda_runtime_version", "has_host_blas", "has_cublas",
                         "has_cusolver", "host_blas_backend", "ZeroConeCpp"]


def test_zero_cone_methods_in_registration_order(m):
    names = [n for n in vars(m.ZeroConeCpp) if not n.startswith("_")]
    assert names == ["dim", "rows", "project_into", "violation", "contains", "unit_vector",
                     "unit_vector_array", "unit_vector_into", "nt_scaling_matrix",
                     "nt_scaling_matrix_array", "nt_scaling_matrix_into",
                     "nt_scaling_matrix_batch_into"]


def test_signatures_render_the_three_array_kinds(m):
    doc = m.ZeroConeCpp.project_into.__doc__
    assert f"input: {RO}" in doc and f"output: {RW}" in doc and "stream: int = 0" in doc
    assert "atol: float = 1e-08" in m.ZeroConeCpp.contains.__doc__


@pytest.mark.parametrize("dim", [0, 5, 2**64 - 1])
def test_constructor_accepts_the_whole_unsigned_range(m, dim):
    cone = m.ZeroConeCpp(dim)
    assert cone.dim == dim and cone.rows == dim


@pytest.mark.parametrize("bad", [-1, 2**64, 1.0, None])
def test_unsigned_parameters_reject_other_values(m, bad):
    with pytest.raises(TypeError):
        m.ZeroConeCpp(bad)
    with pytest.raises(TypeError):
        m.ZeroConeCpp(3).unit_vector(bad)


@pytest.mark.parametrize("index", [np.uint64(1), np.int64(1), np.int32(1)])
def test_numpy_integer_scalars_convert(m, index):
    assert m.ZeroConeCpp(3).unit_vector(index) == [0.0, 1.0, 0.0]


def _bad_arrays():
    base = np.zeros(8)
    readonly = np.zeros(4)
    readonly.flags.writeable = False
    return {
        "float32": np.zeros(4, dtype=np.float32),
        "int64": np.zeros(4, dtype=np.int64),
        "two-dimensional": np.zeros((2, 2)),
        "non-contiguous": base[::2],
        "list": [0.0, 0.0, 0.0, 0.0],
        "None": None,
        "read-only output": readonly,
    }


@pytest.mark.parametrize("kind", list(_bad_arrays()))
def test_output_of_the_wrong_kind_is_a_type_error_and_nothing_is_written(m, kind):
    bad = _bad_arrays()[kind]
    cone = m.ZeroConeCpp(4)
    x = np.full(4, 7.0)
    with pytest.raises(TypeError):
        cone.project_into(x, bad)
    assert np.all(x == 7.0)
    if isinstance(bad, np.ndarray):
        assert not np.any(bad)


@pytest.mark.parametrize("kind", ["float32", "int64", "two-dimensional", "non-contiguous",
                                  "list", "None"])
def test_input_of_the_wrong_kind_is_a_type_error(m, kind):
    out = np.full(4, 7.0)
    with pytest.raises(TypeError):
        m.ZeroConeCpp(4).project_into(_bad_arrays()[kind], out)
    assert np.all(out == 7.0)


def test_read_only_arrays_are_accepted_as_inputs(m):
    x = np.zeros(4)
    x.flags.writeable = False
    assert m.ZeroConeCpp(4).contains(x)


def test_keywords_defaults_and_integer_atol(m):
    cone = m.ZeroConeCpp(2)
    out = np.ones(2)
    cone.project_into(output=out, input=np.ones(2), stream=0)
    assert list(out) == [0.0, 0.0]
    x = np.array([1e-8, -1e-8])
    assert cone.contains(input=x)             # default atol 1e-8
    assert not cone.contains(x, atol=0)       # integer 0 becomes 0.0
    assert cone.contains(np.zeros(2), 0)
    with pytest.raises(TypeError):
        cone.contains(x, tol=1.0)
    with pytest.raises(TypeError):
        cone.violation(x, x)


def test_return_forms(m):
    cone = m.ZeroConeCpp(2)
    z = np.zeros(2)
    flat = cone.nt_scaling_matrix(z, z)
    assert type(flat) is list and flat == [1.0, 0.0, 0.0, 1.0]
    assert all(type(v) is float for v in flat)
    arr = cone.nt_scaling_matrix_array(z, z)
    assert arr.shape == (2, 2) and arr.dtype == np.float64 and arr.flags.c_contiguous
    assert type(cone.violation(z)) is float and type(cone.contains(z)) is bool
    assert cone.nt_scaling_matrix_into(z, z, np.zeros(4)) is None


def test_system_errors_are_runtime_errors_with_the_exact_message(m):
    with pytest.raises(RuntimeError, match=r"^input expected 4 entries, got 5$"):
        m.ZeroConeCpp(4).violation(np.zeros(5))


def test_only_the_entry_and_the_device_interface_are_exported(m):
    import re
    import shutil
    import subprocess
    nm = shutil.which("nm")
    if nm is None:
        pytest.skip("nm (binutils) is not installed")
    listing = subprocess.run([nm, "-D", "--defined-only", m.__file__], capture_output=True,
                             text=True, check=True).stdout
    names = {line.split()[-1] for line in listing.splitlines() if line.strip()}
    assert "PyInit__cpp_cuda" in names
    assert {"dravik_cuda_available", "dravik_cuda_runtime_version",
            "dravik_zero_nt_scaling_batch_cuda"} <= names
    leaked = [n for n in names - {"PyInit__cpp_cuda"} if not re.fullmatch(r"dravik_[a-z0-9_]+", n)]
    assert leaked == []


def test_interface_header_compiles_as_c(tmp_path):
    import shutil
    import subprocess
    cc = shutil.which("gcc") or shutil.which("cc")
    if cc is None or not os.path.isdir("/usr/local/cuda/include"):
        pytest.skip("no C compiler or CUDA headers")
    source = tmp_path / "caller.c"
    source.write_text('#include "cuda/dravik_cuda.h"\n'
                      "int main(void) { return dravik_cuda_available() ? 0 : 1; }\n")
    subprocess.run([cc, "-std=c11", "-Wall", "-Werror", "-fsyntax-only", "-I",
                    os.path.join(ROOT, "cpp"), "-I", "/usr/local/cuda/include", str(source)],
                   check=True)
