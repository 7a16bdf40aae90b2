#!/usr/bin/env bash
# The host test suite (fuzz profile included) under AddressSanitizer and
# UndefinedBehaviorSanitizer.
#
#   scripts/test_sanitize.sh PYTHON BUILD_DIR DEPS_DIR [pytest arguments...]
#
# BUILD_DIR gets a Debug build of the host C++ with both sanitizers (one
# device architecture: only host code is under test). Its extension lands in
# BUILD_DIR/python, a staging copy of the package, never in python/, so the
# normal build's extension stays as it is. The interpreter is not built with
# ASan, so its runtime is preloaded; CPython keeps some memory until exit by
# design, hence no leak report. Any sanitizer report ends the run with a
# failure. Debug (-O0) also keeps loops that an optimiser would drop, so a
# walk over a huge empty batch shows up as a hang instead of passing unseen.
set -euo pipefail
cd "$(dirname "$0")/.."

python=${1:-/usr/bin/python3}
build=${2:-build-sanitize}
deps=${3:-build/deps}
shift $(( $# > 3 ? 3 : $# ))

stage="$(realpath -m "$build/python")"
DRAVIK_DEPS="$deps" bash scripts/build.sh "$python" "$build" -DCMAKE_BUILD_TYPE=Debug \
  -DDRAVIK_SANITIZE=ON -DDRAVIK_PYTHON_DIR="$stage" -DCMAKE_CUDA_ARCHITECTURES=90-real

# libstdc++ is preloaded too: ASan resolves the real __cxa_throw when it
# starts, and the interpreter itself does not load libstdc++, so without it
# the first C++ exception aborts the process.
preload=()
for lib in libasan.so libstdc++.so; do
  path=$(g++ -print-file-name="$lib")
  if [ ! -e "$path" ]; then
    echo "test-sanitize: $lib not found (g++ -print-file-name=$lib)" >&2
    exit 1
  fi
  preload+=("$path")
done

# protect_shadow_gap=0: the CUDA driver maps memory inside ASan's shadow gap,
# which matters only where a GPU is present.
# -o pythonpath= drops pytest.ini's python/ entry, which would shadow the
# staged package with the normal build.
LD_PRELOAD="${preload[*]}" \
ASAN_OPTIONS=detect_leaks=0:protect_shadow_gap=0 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
DRAVIK_SANITIZED=1 \
PYTHONPATH="$stage:$PWD/tests" \
  "$python" -m pytest -q -p no:cacheprovider -o pythonpath= tests "$@"
