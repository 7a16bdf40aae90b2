#!/usr/bin/env python3
"""Writes the C++ stand-ins of the exported device interface for a build
without CUDA, from the interface headers themselves, so that every function
they declare (today's and any added later) exists in that build too.

    cpu_stand_ins.py HEADER [HEADER ...] OUTPUT

Each stand-in answers as a machine without a usable device would:
  - dravik_cuda_available: false; dravik_cuda_runtime_version: "none";
  - a method query dravik_<rule>_cuda(size, batch) (name ending in
    _default_method_cuda; size is rows or order, as the header names it):
    the pure rule <rule> from math/nt_method_rules.hpp called with the
    query's own parameters, the one the CUDA build answers with;
  - every other function throws "CUDA runtime is required for CUDA cone
    arrays", the message the module gives before it would reach them.
"""
import re
import sys

NAMESPACE = "dravik::mirel::cones::cpp"
MESSAGE = "CUDA runtime is required for CUDA cone arrays"
ANSWERS = {
    "dravik_cuda_available": "return false;",
    "dravik_cuda_runtime_version": 'return "none";',
}
RULE_SUFFIX = "_default_method_cuda"

DECLARATION = re.compile(
    r"DRAVIK_CUDA_API\s+(?P<result>[^;()]*?)\s*\b(?P<name>dravik_\w+)\s*\((?P<params>[^()]*)\)\s*;")
PARAMETER = re.compile(r"^(?P<type>.*?[\s*&])(?P<name>[A-Za-z_]\w*)$")


class HeaderError(ValueError):
    pass


def strip_comments(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    return re.sub(r"//[^\n]*", " ", text)


def parameters(params, function):
    """[(type, name)] of a parameter list; `void` or nothing is no parameter."""
    params = " ".join(params.split())
    if params in ("", "void"):
        return []
    result = []
    for param in params.split(","):
        match = PARAMETER.match(param.strip())
        if match is None:
            raise HeaderError(f"{function}: parameter '{param.strip()}' has no name")
        result.append((match["type"].strip(), match["name"]))
    return result


def declarations(header_text):
    """(result type, name, parameters) of every declared dravik_* function;
    a dravik_*( that is not a whole declaration is an error, not a gap."""
    text = strip_comments(header_text)
    found = [(" ".join(m["result"].split()), m["name"], parameters(m["params"], m["name"]))
             for m in DECLARATION.finditer(text)]
    names = [name for _, name, _ in found]
    mentioned = re.findall(r"\b(dravik_\w+)\s*\(", text)
    unparsed = sorted(set(mentioned) - set(names))
    if unparsed:
        raise HeaderError("not declared as DRAVIK_CUDA_API <result> <name>(<parameters>);: " +
                          ", ".join(unparsed))
    if not found:
        raise HeaderError("no DRAVIK_CUDA_API declarations found")
    if len(set(names)) != len(names):
        raise HeaderError("a function is declared twice")
    return found


def body(result, name, params):
    if name in ANSWERS:
        return ANSWERS[name]
    if name.endswith(RULE_SUFFIX):
        rule = name[len("dravik_"):-len("_cuda")]
        args = ", ".join(param for _, param in params)
        return f"return {NAMESPACE}::{rule}({args});"
    return "no_cuda();"


def stand_in(result, name, params):
    code = body(result, name, params)
    # Parameters a stand-in does not read keep their name in a comment only.
    used = set(re.findall(r"\b\w+\b", code))
    listed = ", ".join(f"{ptype} {pname}" if pname in used else f"{ptype} /*{pname}*/"
                       for ptype, pname in params) or "void"
    return f"{result} {name}({listed}) {{ {code} }}"


def generate(header_text, header_includes=("cuda/dravik_cuda.h",)):
    """Stand-ins of every function declared in header_text (the headers'
    texts joined), in a file that includes each of header_includes."""
    lines = [
        "// Generated from the exported interface headers by scripts/cpu_stand_ins.py at",
        "// build time; do not edit. The exported device interface of a build without CUDA.",
        "#include <stdexcept>",
        "",
        '#include "math/nt_method_rules.hpp"',
    ]
    lines += [f'#include "{include}"' for include in header_includes]
    lines += [
        "",
        "namespace {",
        f'[[noreturn]] void no_cuda() {{ throw std::runtime_error("{MESSAGE}"); }}',
        "}  // namespace",
        "",
        'extern "C" {',
        "",
    ]
    lines += [stand_in(*decl) for decl in declarations(header_text)]
    lines += ["", '}  // extern "C"', ""]
    return "\n".join(lines)


def include_name(path):
    """The include path of a header under cpp/ (cpp/cuda/x.h -> cuda/x.h)."""
    parts = path.replace("\\", "/").split("/")
    return "/".join(parts[-2:])


def main(argv):
    if len(argv) < 3:
        sys.exit("usage: cpu_stand_ins.py HEADER [HEADER ...] OUTPUT")
    headers, output = argv[1:-1], argv[-1]
    texts = []
    for header in headers:
        with open(header, encoding="utf-8") as f:
            texts.append(f.read())
    try:
        code = generate("\n".join(texts), [include_name(h) for h in headers])
    except HeaderError as error:
        sys.exit(f"{', '.join(headers)}: {error}")
    with open(output, "w", encoding="utf-8") as f:
        f.write(code)


if __name__ == "__main__":
    main(sys.argv)
