#!/usr/bin/env bash
# Unpacks architecture-independent Debian 13 ("trixie") packages into a
# project-local prefix, leaving the system's apt configuration and dpkg's
# database alone: a private sources list, private apt state and cache, then
# `apt-get download` and `dpkg -x`. Works as root or not; needs the network.
#
#   scripts/fetch_trixie.sh PREFIX PACKAGE...
#
# Exits 3 without a word when the archive cannot be reached, and 4 when
# there is no apt-get, so that the caller can say what that means for it.
set -euo pipefail

command -v apt-get >/dev/null && command -v dpkg >/dev/null || exit 4

prefix=$1
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$prefix" "$work/lists/partial" "$work/cache/archives/partial" "$work/parts" \
  "$work/prefs" "$work/debs"
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian trixie main" \
  > "$work/sources.list"
opts=(-o "Dir::Etc::sourcelist=$work/sources.list" -o "Dir::Etc::sourceparts=$work/parts"
      -o "Dir::Etc::preferencesparts=$work/prefs" -o "Dir::State::Lists=$work/lists"
      -o "Dir::Cache=$work/cache" -o Debug::NoLocking=1 -o APT::Get::List-Cleanup=0)
# As root, apt would hand the download to its _apt user, who cannot write to
# the private folders (and says so); the files are only unpacked anyway.
[ "$(id -u)" != 0 ] || opts+=(-o APT::Sandbox::User=root)

# An unreachable archive leaves no package index behind; apt's own words for
# that later ("Unable to locate package") would point the wrong way.
apt-get "${opts[@]}" update -qq >"$work/update.log" 2>&1 || true
if ! compgen -G "$work/lists/*_Packages*" >/dev/null; then
  exit 3
fi
(cd "$work/debs" && apt-get "${opts[@]}" download "$@" >&2)
for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$prefix"; done
