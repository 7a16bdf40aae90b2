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
fi
for pair in "${extras[@]}"; do
  has_module "${pair%%=*}" || missing+=("${pair#*=}")
done
"$python" -c "import sysconfig,os,sys; sys.exit(not os.path.exists(os.path.join(sysconfig.get_paths()['include'],'Python.h')))" \
  || missing+=(python3-dev)
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
  mkdir -p "$prefix"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/parts" "$work/prefs" "$work/debs"
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian trixie main" \
    > "$work/sources.list"
  opts=(-o "Dir::Etc::sourcelist=$work/sources.list" -o "Dir::Etc::sourceparts=$work/parts"
        -o "Dir::Etc::preferencesparts=$work/prefs" -o "Dir::State::Lists=$work/lists"
        -o "Dir::Cache=$work/cache" -o Debug::NoLocking=1 -o APT::Get::List-Cleanup=0)
  apt-get "${opts[@]}" update -qq >&2
  (cd "$work/debs" && apt-get "${opts[@]}" download nanobind-dev robin-map-dev >&2)
  for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$prefix"; done
fi
echo "$(cd "$nb_dir" && pwd)"
