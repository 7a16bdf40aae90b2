#!/usr/bin/env bash
# Set-up plus an incremental build; the extension lands in
# python/dravik/mirel/cones/cpp/.
#
#   scripts/build.sh PYTHON BUILD_DIR [extra cmake -D options...]
#
# The fetched nanobind lives in BUILD_DIR/deps unless DRAVIK_DEPS names
# another folder (variant builds share the normal build's).
set -euo pipefail
cd "$(dirname "$0")/.."

python=${1:-/usr/bin/python3}
build=${2:-build}
shift $(( $# > 2 ? 2 : $# ))

deps=${DRAVIK_DEPS:-$build/deps}
nb_dir=$(bash scripts/setup.sh "$python" "$deps" | tail -n 1)
python=$(command -v "$python")

cmake -S . -B "$build" -DPython_EXECUTABLE="$python" \
  -Dnanobind_DIR="$nb_dir" -DCMAKE_PREFIX_PATH="$(realpath -m "$deps/usr")" "$@" >/dev/null
MAKEFLAGS=--no-print-directory cmake --build "$build" -j "$(nproc)"
