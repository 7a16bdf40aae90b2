#!/usr/bin/env bash
# Installs what the build and the tests need and is missing, then prints the
# nanobind CMake directory on its last line. Safe to re-run; offline when
# everything is already present.
#
#   scripts/setup.sh PYTHON PREFIX [MODULE=PACKAGE ...]
#
# PYTHON  interpreter to build for (default /usr/bin/python3)
# PREFIX  project-local, git-ignored folder for nanobind and robin-map
# MODULE=PACKAGE  extra Python modules a target needs, with the Debian
#         package that provides each (e.g. matplotlib=python3-matplotlib)
set -euo pipefail

python=${1:-/usr/bin/python3}
prefix=${2:-build/deps}
extras=("${@:3}")

log() { echo "setup: $*" >&2; }

has_module() { "$python" -c "import $1" >/dev/null 2>&1; }

apt_updated=0
apt_install() {
  if [ "$(id -u)" != 0 ]; then
    log "missing packages $*; run as root or install them by hand"
    exit 1
  fi
  if [ "$apt_updated" = 0 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get update -qq >&2
    apt_updated=1
  fi
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$@" >&2
}

# Debian packages: only asked for when the chosen Python lacks the module
# (an offline machine whose Python already has NumPy and pytest needs no apt).
missing=()
command -v cmake >/dev/null || missing+=(cmake)
command -v g++ >/dev/null || missing+=(g++)
command -v make >/dev/null || missing+=(make)
has_module numpy || missing+=(python3-numpy)
has_module pytest || missing+=(python3-pytest)
# The host suite's own needs; DRAVIK_SETUP_HOST_TESTS=0 skips them (the GPU
# sanitizer run, on a GPU machine whose Python may lack them and be offline).
if [ "${DRAVIK_SETUP_HOST_TESTS:-1}" != 0 ]; then
  has_module scipy || missing+=(python3-scipy)
  has_module hypothesis || missing+=(python3-hypothesis)
  has_module cvxopt || missing+=(python3-cvxopt)   # the reference solver's oracle
fi
for pair in "${extras[@]}"; do
  has_module "${pair%%=*}" || missing+=("${pair#*=}")
done
"$python" -c "import sysconfig,os,sys; sys.exit(not os.path.exists(os.path.join(sysconfig.get_paths()['include'],'Python.h')))" \
  || missing+=(python3-dev)
# apt's python3-* packages land in /usr/lib/python3/dist-packages, which only
# Debian's own Python reads (and virtual environments made from it with
# --system-site-packages); for any other Python, installing them cannot help.
python_packages=()
lacks=()
for package in "${missing[@]}"; do
  case $package in
    python3-dev) python_packages+=("$package"); lacks+=("its C headers (Python.h)") ;;
    python3-*) python_packages+=("$package"); lacks+=("${package#python3-}") ;;
  esac
done
if [ ${#python_packages[@]} -gt 0 ] &&
   ! "$python" -c "import sys; sys.exit('/usr/lib/python3/dist-packages' not in sys.path)" 2>/dev/null; then
  log "$python lacks ${lacks[*]}; it is not Debian's Python, so apt (${python_packages[*]})"
  log "cannot add them to it: install them for it (e.g. with its pip), or use PYTHON=/usr/bin/python3"
  exit 1
fi
if [ ${#missing[@]} -gt 0 ]; then
  log "installing ${missing[*]}"
  apt_install "${missing[@]}"
fi

# nanobind: use the one the Python already has (pip installs bundle
# robin-map), else Debian 13's header-only packages unpacked into PREFIX.
if dir=$("$python" -m nanobind --cmake_dir 2>/dev/null) && [ -f "$dir/nanobind-config.cmake" ]; then
  echo "$dir"
  exit 0
fi

nb_dir="$prefix/usr/share/nanobind/cmake"
if [ ! -f "$nb_dir/nanobind-config.cmake" ] || [ ! -d "$prefix/usr/include/tsl" ]; then
  log "fetching nanobind-dev and robin-map-dev (Debian 13) into $prefix"
  status=0
  bash "$(dirname "$0")/fetch_trixie.sh" "$prefix" nanobind-dev robin-map-dev || status=$?
  case $status in
    0) ;;
    3) log "no network: nanobind could not be fetched; install nanobind for $python or run once with network"
       exit 1 ;;
    4) log "no apt-get here to fetch nanobind with: install nanobind for $python (e.g. with its pip)"
       exit 1 ;;
    *) exit "$status" ;;
  esac
fi
echo "$(cd "$nb_dir" && pwd)"
