"""The type stub _cpp_cuda.pyi, generated from the built module at build
time and shipped beside it with py.typed: it must equal the committed
reference (after an intended change of the surface, `make stubs` updates the
reference), and its result types must be precise. The runtime keeps no
docstrings: each function's __doc__ is nanobind's signature line alone."""
import ast
import difflib
import os
from pathlib import Path

import pytest

from processes import ROOT

REFERENCE = Path(ROOT) / "tests" / "reference" / "_cpp_cuda.pyi"


def test_generated_stub_matches_the_reference(m):
    if os.environ.get("DRAVIK_SANITIZED"):
        pytest.skip("sanitizer builds make no stub (their module needs the runtime preloaded)")
    generated = Path(m.__file__).with_name("_cpp_cuda.pyi")
    assert generated.is_file(), "the build wrote no stub beside the module"
    assert Path(m.__file__).with_name("py.typed").is_file()
    ours, theirs = generated.read_text().splitlines(), REFERENCE.read_text().splitlines()
    diff = "\n".join(difflib.unified_diff(theirs, ours, str(REFERENCE), str(generated),
                                          lineterm=""))
    assert not diff, f"the module's surface changed; if intended, run `make stubs`:\n{diff}"


def _results():
    """{(class or "", function): result annotation} of the reference stub."""
    results = {}
    for node in ast.parse(REFERENCE.read_text()).body:
        scope = node.name if isinstance(node, ast.ClassDef) else ""
        for fn in node.body if isinstance(node, ast.ClassDef) else [node]:
            if isinstance(fn, ast.FunctionDef):
                results[(scope, fn.name)] = ast.unparse(fn.returns)
    return results


ARRAY = "numpy.typing.NDArray[numpy.float64]"


def _expected(name):
    if name.endswith("_array") or name in ("psd_smat", "psd_svec"):
        return ARRAY
    if name in ("unit_vector", "nt_scaling_matrix"):
        return "list[float]"
    if name.endswith("_into") or name == "__init__":
        return "None"
    if name in ("violation", "max_step", "violation_dual", "max_step_dual"):
        return "float"
    if name in ("contains", "contains_dual") or name.startswith("has_"):
        return "bool"
    if name in ("dim", "rows", "degree", "scaling_length"):
        return "int"
    if name.endswith("_default_method") or name in ("cuda_runtime_version", "host_blas_backend"):
        return "str"
    return None


def test_stub_result_types_are_precise():
    results = _results()
    assert len(results) >= 74
    unknown = sorted(name for (_, name) in results if _expected(name) is None)
    assert unknown == [], "new names: give them an expected result type here"
    wrong = {key: result for key, result in results.items() if result != _expected(key[1])}
    assert wrong == {}


def _callables(m):
    for name, obj in vars(m).items():
        if isinstance(obj, type):
            for attr, member in vars(obj).items():
                if callable(member) and (attr == "__init__" or not attr.startswith("_")):
                    yield f"{name}.{attr}", attr, member
        elif callable(obj) and not name.startswith("_"):
            yield name, name, obj


def test_runtime_docstrings_are_signature_lines_only(m):
    seen = 0
    for qualified, name, fn in _callables(m):
        doc = fn.__doc__ or ""
        assert "\n" not in doc and doc.startswith(f"{name}(") and ") -> " in doc, qualified
        seen += 1
    assert seen > 60
