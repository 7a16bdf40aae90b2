"""The two builds of one surface: the CUDA build, and the CPU-only build
(DRAVIK_CUDA=OFF, or no CUDA toolkit found), whose device interface consists
of stand-ins generated from cpp/cuda/dravik_cuda.h. Both export every
function the header declares and answer the method queries by the same pure
rules; only the CUDA build needs the CUDA libraries."""
import ctypes
import importlib.util
import os
import re
import shutil
import subprocess

import pytest

from processes import ROOT

HEADER = os.path.join(ROOT, "cpp", "cuda", "dravik_cuda.h")


def _generator():
    loader_spec = importlib.util.spec_from_file_location(
        "cpu_stand_ins", os.path.join(ROOT, "scripts", "cpu_stand_ins.py"))
    module = importlib.util.module_from_spec(loader_spec)
    loader_spec.loader.exec_module(module)
    return module


gen = _generator()


def _header_text():
    with open(HEADER, encoding="utf-8") as f:
        return f.read()


def _query(m, name):
    """The exported method query `name` through ctypes."""
    fn = getattr(ctypes.CDLL(m.__file__), name)
    fn.argtypes, fn.restype = [ctypes.c_size_t, ctypes.c_size_t], ctypes.c_char_p
    return lambda dim, batch: fn(dim, batch).decode()


def test_every_declared_device_function_is_exported(m):
    declared = [name for _, name, _ in gen.declarations(_header_text())]
    assert len(declared) == 41 and "dravik_cuda_available" in declared
    library = ctypes.CDLL(m.__file__)
    assert [name for name in declared if not hasattr(library, name)] == []


def test_cuda_libraries_are_needed_by_the_cuda_build_only(m):
    readelf = shutil.which("readelf")
    if readelf is None:
        pytest.skip("readelf (binutils) is not installed")
    dynamic = subprocess.run([readelf, "-d", m.__file__], capture_output=True, text=True,
                             check=True).stdout
    needed = re.findall(r"\(NEEDED\)\s+Shared library: \[(.+?)\]", dynamic)
    cuda = sorted(n for n in needed if n.startswith(("libcu", "libnv")))
    if m.has_cublas():
        assert "libcublas" in {n.split(".so")[0] for n in cuda}
    else:
        assert cuda == [] and any(n.startswith("libgomp") for n in needed)


# (class, query, dim, batch, method) at the edges of each rule.
RULES = [("SecondOrderConeCpp", "soc", dim, batch, method) for dim, batch, method in [
    (32, 16, "cublas"), (32, 15, "custom"), (33, 16, "custom"), (1, 10**6, "cublas"),
    (1, 0, "custom")]] + [("PsdConeCpp", "psd", dim, batch, method) for dim, batch, method in [
        (2, 500, "analytic"), (3, 15, "custom"), (7, 1, "custom"), (8, 0, "custom"),
        (3, 16, "cublas"), (8, 1, "cublas"), (128, 1, "cublas"), (129, 16, "custom")]]


@pytest.mark.parametrize("cls, family, dim, batch, method", RULES)
def test_method_queries_answer_in_every_build(m, cls, family, dim, batch, method):
    query = _query(m, f"dravik_{family}_nt_scaling_default_method_cuda")
    assert query(dim, batch) == getattr(m, cls)(dim).nt_scaling_matrix_default_method(batch) \
        == method
    assert getattr(m, cls)(dim).nt_scaling_matrix_default_method() == query(dim, 1)


# Declarations of the kinds other parts of the interface add: a method query
# and a sparse fill with index arrays, spread over lines as the header does.
ADDED = """
/* added */
DRAVIK_CUDA_API const char* dravik_psd_nt_scaling_default_method_cuda(size_t dim, size_t batch);
DRAVIK_CUDA_API void dravik_zero_hmatrix_csr_cuda(const int64_t* indptr, const int64_t* indices,
                                                  double* values, size_t nnz, size_t dim,
                                                  size_t row_offset, int device,
                                                  cudaStream_t stream);
"""


def _with_added(text):
    """The header with the two declarations moved to its end, as if added."""
    for name in ("dravik_psd_nt_scaling_default_method_cuda", "dravik_zero_hmatrix_csr_cuda"):
        text = re.sub(r"DRAVIK_CUDA_API[^;]*\b" + name + r"\s*\([^)]*\)\s*;", "", text)
    end = text.rindex("#ifdef __cplusplus\n}")
    return text[:end] + ADDED + text[end:]


def test_stand_ins_cover_functions_added_to_the_header_and_compile_without_cuda(tmp_path):
    text = _with_added(_header_text())
    assert text.count("dravik_zero_hmatrix_csr_cuda(") == 1
    code = gen.generate(text)
    assert ("const char* dravik_psd_nt_scaling_default_method_cuda(size_t dim, size_t batch) "
            "{ return dravik::mirel::cones::cpp::psd_nt_scaling_default_method(dim, batch); }"
            in code)
    assert re.search(r"void dravik_zero_hmatrix_csr_cuda\(const int64_t\* /\*indptr\*/, .*"
                     r"cudaStream_t /\*stream\*/\) \{ no_cuda\(\); \}", code)
    assert len(re.findall(r"^\S.* dravik_\w+\(.*\) \{", code, re.M)) == \
        len(gen.declarations(text))
    cxx = shutil.which("g++")
    if cxx is None:
        pytest.skip("no C++ compiler")
    (tmp_path / "cuda").mkdir()
    (tmp_path / "cuda" / "dravik_cuda.h").write_text(text)
    (tmp_path / "stand_ins.cpp").write_text(code)
    # No CUDA include path: the CPU-only form must not need one.
    subprocess.run([cxx, "-std=c++17", "-Wall", "-Wextra", "-Werror", "-fsyntax-only",
                    "-DDRAVIK_CPU_ONLY", "-I", str(tmp_path), "-I", os.path.join(ROOT, "cpp"),
                    str(tmp_path / "stand_ins.cpp")], check=True)


@pytest.mark.parametrize("declaration, error", [
    ("DRAVIK_CUDA_API void dravik_x_cuda(const double*, int device);", "has no name"),
    ("void dravik_x_cuda(int device);", "not declared as"),
    ("DRAVIK_CUDA_API bool dravik_cuda_available(void);", "declared twice"),
])
def test_stand_in_generator_refuses_what_it_cannot_read(declaration, error):
    text = _header_text().replace("/* Capabilities", declaration + "\n/* Capabilities", 1)
    with pytest.raises(gen.HeaderError, match=error):
        gen.generate(text)
