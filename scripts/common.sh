# Sourced by the other scripts: where the project is, and what it needs installed.
# shellcheck shell=bash

set -euo pipefail
project="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc)"

# One clone's compilations serve the next: what ccache keeps does not depend on where the clone lies.
export CCACHE_BASEDIR="$project"
export CCACHE_NOHASHDIR=1

# Installs the packages of packages.txt that are missing, of the first part alone: install_packages build.
# Does nothing when none is.
install_packages() {
  local package missing=()
  while read -r package; do
    case "$package" in
      '# To test,'*) if [ "${1:-}" = build ]; then break; else continue; fi ;;
      '' | '#'*) continue ;;
    esac
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
      missing+=("$package")
    fi
  done <"$project/scripts/packages.txt"
  [ "${#missing[@]}" -eq 0 ] && return 0

  echo "Installing ${missing[*]}" >&2
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "These packages are missing, and only root can install them: ${missing[*]}" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq >&2
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# Configures and builds one preset: build_preset NAME [TARGET ...]. With ORRERY_TESTS_BY_PROGRAM=ON in
# the environment its tests run program by program, not each in a process of its own.
build_preset() {
  local preset="$1"
  shift
  cmake -S "$project" --preset "$preset" \
    -DORRERY_TESTS_BY_PROGRAM="${ORRERY_TESTS_BY_PROGRAM:-OFF}" >&2
  cmake --build "$project/build/$preset" -j "$jobs" ${1:+--target "$@"} >&2
}

# Runs the tests of one preset: test_preset NAME [CTEST OPTION ...]
test_preset() {
  local preset="$1"
  shift
  ctest --test-dir "$project/build/$preset" --output-on-failure -j "$jobs" "$@"
}
