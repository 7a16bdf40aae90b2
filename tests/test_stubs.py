"""The type stub _cpp_cuda.pyi, generated from the built module at build
time and shipped beside it with py.typed: it must equal the committed
reference (after an intended change of the surface, `make stubs` updates the
reference), and its result types must be precise. The runtime keeps no
docstrings: each function's __doc__ is nanobind's signature line alone."""
import ast
import difflib
import os
import re
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


# Result annotation by name: the first rule whose pattern the name matches.
RULES = [(r"_array$|^psd_s(mat|vec)$", "numpy.typing.NDArray[numpy.float64]"),
         (r"^(unit_vector|nt_scaling_matrix)$", "list[float]"), (r"_into$|^__init__$", "None"),
         (r"^(violation|max_step)(_dual)?$", "float"), (r"^(contains(_dual)?|has_.*)$", "bool"),
         (r"^(dim|rows|degree|scaling_length)$", "int"),
         (r"_default_method$|^cuda_runtime_version$|^host_blas_backend$", "str")]


def test_stub_result_types_are_precise():
    results = _results()
    assert len(results) >= 74
    expected = {key: next((t for rule, t in RULES if re.search(rule, key[1])), "unknown name")
                for key in results}
    assert results == expected


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
