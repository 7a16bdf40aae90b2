#!/usr/bin/env bash
# The pip route, end to end and offline: builds and installs the package
# with pip into a fresh virtual environment (no package index, no build
# isolation), then imports it from outside the checkout and runs a smoke test.
#
#   scripts/test_pip.sh PYTHON DEPS VENV [pip --config-settings ...]
#
# PYTHON  interpreter the environment is made from (--system-site-packages,
#         so it keeps that interpreter's NumPy)
# DEPS    where set-up keeps nanobind; scikit-build-core and the modules it
#         imports are fetched there too (Debian 13 packages) unless PYTHON
#         already has them
# VENV    the environment, made anew on every run
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

python=${1:-/usr/bin/python3}
deps=${2:-build/deps}
venv=${3:-build/pip-venv}
shift $(( $# > 3 ? 3 : $# ))

log() { echo "test-pip: $*" >&2; }

nb_dir=$(bash scripts/setup.sh "$python" "$deps" ensurepip=python3-venv pip=python3-pip | tail -n 1)

backend_path=
if ! "$python" -c "import scikit_build_core" >/dev/null 2>&1; then
  backend_path=$(realpath -m "$deps/usr/lib/python3/dist-packages")
  if [ ! -d "$backend_path/scikit_build_core" ]; then
    log "fetching python3-scikit-build-core and what it imports (Debian 13) into $deps"
    status=0
    bash scripts/fetch_trixie.sh "$deps" python3-scikit-build-core python3-pathspec \
      python3-pyproject-metadata python3-packaging || status=$?
    if [ $status = 3 ]; then
      log "no network: scikit-build-core could not be fetched; install it for $python or run once with network"
    fi
    [ $status = 0 ] || exit 1
  fi
fi

rm -rf "$venv"
"$python" -m venv --system-site-packages "$venv"
venv=$(realpath "$venv")

log "pip install . into $venv"
start=$SECONDS
PYTHONPATH=$backend_path CMAKE_BUILD_PARALLEL_LEVEL=$(nproc) \
  "$venv/bin/python" -m pip install --no-index --no-build-isolation --quiet \
  --config-settings=cmake.define.nanobind_DIR="$nb_dir" \
  --config-settings=cmake.define.CMAKE_PREFIX_PATH="$(realpath -m "$deps/usr")" \
  "$@" "$root"
log "built and installed in $((SECONDS - start)) s"

# From an empty folder, so that nothing of the checkout is on the path.
cd "$(mktemp -d)"
PYTHONPATH= "$venv/bin/python" - "$venv" <<'EOF'
import pathlib
import sys

import numpy as np

from dravik.mirel.cones.cpp import _cpp_cuda as m

venv = pathlib.Path(sys.argv[1]).resolve()
module = pathlib.Path(m.__file__).resolve()
assert venv in module.parents, f"imported {module}, not the installed module"
for name in ("_cpp_cuda.pyi", "py.typed"):
    assert (module.parent / name).is_file(), f"{name} is not installed beside the module"

cone = m.SecondOrderConeCpp(3)
out = np.empty(3)
cone.project_into(np.array([0.0, 3.0, 4.0]), out)
assert out.tolist() == [2.5, 1.5, 2.0], out
w = cone.nt_scaling_matrix_array(np.array([3.0, 1.0, 0.5]), np.array([2.0, 0.3, -0.4]))
assert w.shape == (3, 3) and np.isfinite(w).all()
print(f"test-pip: ok: {module}")
print(f"test-pip: has_cuda={m.has_cuda()} has_cublas={m.has_cublas()} "
      f"cuda_runtime_version={m.cuda_runtime_version()!r}")
EOF
