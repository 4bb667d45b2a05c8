# Sourced by ./run, ./test and Benchmarks/run: what a fresh machine lacks, and the build.
# shellcheck shell=bash

set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

fail() {
  printf '%s\n' "$@" >&2
  exit 1
}

# step TEXT LOG COMMAND...: runs the command with its output in LOG. After a second it says TEXT, on
# a terminal with the last line of the log's progress; when the command fails it shows the log's end.
step() {
  local text=$1 log=$2 start=$SECONDS said='' pid status=0 progress
  shift 2
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 </dev/null &
  pid=$!
  trap 'kill "$pid" 2>/dev/null || true' INT TERM
  while sleep 0.25; kill -0 "$pid" 2>/dev/null; do
    if [ -t 1 ]; then
      [ $((SECONDS - start)) -lt 1 ] && continue
      progress=$(grep -oE '^\[[0-9]+/[0-9]+\]' "$log" | tail -n 1 || true)
      printf '\r\033[K%s %s' "$text" "$progress"
      said=yes
    elif [ -z "$said" ] && [ $((SECONDS - start)) -ge 1 ]; then
      printf '%s\n' "$text"
      said=yes
    fi
  done
  wait "$pid" || status=$?
  trap - INT TERM
  if [ -t 1 ] && [ -n "$said" ]; then printf '\r\033[K'; fi
  [ "$status" -eq 0 ] && return
  tail -n 40 "$log" >&2
  fail "" "$text failed. The whole output is in $log."
}

# install_missing_packages [FILE...]: what packaging/debian-packages lists, and each further file.
install_missing_packages() {
  local package missing=() sudo=()
  while read -r package; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done < <(grep -hv '^#' packaging/debian-packages "$@")
  [ ${#missing[@]} -eq 0 ] && return
  command -v apt-get >/dev/null ||
    fail "This needs Debian 12's apt-get. On another system, install the counterparts of:" \
      "  ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "Some packages are missing. As root, run:" \
      "  apt-get update && apt-get install ${missing[*]}"
    sudo=(sudo DEBIAN_FRONTEND=noninteractive)
    sudo -v  # Ask for the password now, while the terminal is still ours.
  fi
  export DEBIAN_FRONTEND=noninteractive
  step "Updating the package lists" build/packages.log "${sudo[@]}" apt-get update
  step "Installing ${#missing[@]} packages" build/packages.log \
    "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]
build() {
  local preset=$1
  shift
  # Afterwards the build itself notices when it must be configured again.
  if [ ! "build/$preset/build.ninja" -nt CMakePresets.json ]; then
    step "Configuring ($preset)" "build/$preset-configure.log" cmake --preset "$preset"
  fi
  step "Building ($preset)" "build/$preset-build.log" \
    cmake --build --preset "$preset" ${1:+--target "$@"}
}
