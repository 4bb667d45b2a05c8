# Sourced by ./run, ./test and Benchmarks/run: installs missing packages, and builds.
# shellcheck shell=bash

set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

fail() {
  printf '%s\n' "$@" >&2
  exit 1
}

# time_since START: the time since then, measured by $SECONDS, for people.
time_since() {
  local seconds=$((SECONDS - $1))
  if [ "$seconds" -lt 60 ]; then
    printf '%d s' "$seconds"
  else
    printf '%d min %02d s' $((seconds / 60)) $((seconds % 60))
  fi
}

# progress_in LOG: " DONE of ALL," from the newest "[DONE/ALL]" in the log; nothing if there is
# none.
progress_in() {
  grep -oE '^\[[0-9]+/[0-9]+\]' "$1" | tail -n 1 | sed -E 's/\[(.+)\/(.+)\]/ \1 of \2,/' || true
}

# step TEXT LOG COMMAND...: runs the command with its output in LOG. After a second it prints TEXT,
# and then the progress and the time: on a terminal in the same line, elsewhere in a line every half
# a minute. If the command fails it shows the log's end.
step() {
  local text=$1 log=$2 start=$SECONDS said='' next=1 pid status=0
  shift 2
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 </dev/null &
  pid=$!
  trap 'kill "$pid" 2>/dev/null || true' INT TERM
  while sleep 0.25; [ -d "/proc/$pid" ]; do  # kill -0 would fail for sudo, which belongs to root.
    [ $((SECONDS - start)) -ge "$next" ] || continue
    if [ -t 1 ]; then
      printf '\r\033[K%s:%s %s so far' "$text" "$(progress_in "$log")" "$(time_since "$start")"
    elif [ -z "$said" ]; then
      printf '%s\n' "$text"
      next=30
    else
      printf '%s:%s %s so far\n' "$text" "$(progress_in "$log")" "$(time_since "$start")"
      next=$((next + 30))
    fi
    said=yes
  done
  wait "$pid" || status=$?
  trap - INT TERM
  if [ -t 1 ] && [ -n "$said" ]; then printf '\r\033[K'; fi
  [ "$status" -eq 0 ] && return
  tail -n 40 "$log" >&2
  fail "" "$text failed. The whole output is in $log."
}

# announce PRESET BUILDING REST TEXT: prints the next step and about how many minutes it takes:
# BUILDING for building everything, which happens once, and REST for the others. Missing packages
# add to that.
announce() {
  local preset=$1 building=$2 rest=$3 text=$4
  if [ -e "build/$preset/.ninja_log" ]; then
    printf '%s: about %d min, and at most %d more where everything has changed.\n' \
      "$text" "$rest" "$building"
  else
    printf '%s: about %d min on two cores, and about %d the next time.\n' \
      "$text" $((building + rest)) "$rest"
  fi
}

# install_missing_packages [FILE...]: installs the packages that packaging/debian-packages and each
# FILE list.
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
    sudo -v  # Ask for the password now, while this script still owns the terminal.
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
  # Later the build itself notices when it must be configured again.
  if [ ! "build/$preset/build.ninja" -nt CMakePresets.json ]; then
    step "Configuring ($preset)" "build/$preset-configure.log" cmake --preset "$preset"
  fi
  step "Building ($preset)" "build/$preset-build.log" \
    cmake --build --preset "$preset" ${1:+--target "$@"}
}
