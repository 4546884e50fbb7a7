# Functions for the commands of this repository. Source it.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev nlohmann-json3-dev
  libsimdjson-dev libre2-dev libspdlog-dev libssl-dev libgtest-dev libbenchmark-dev ca-certificates
  dpkg-dev file)

# say TEXT: prints TEXT on stderr, because stdout is for the output of the command.
say() { printf '%s\n' "$*" >&2; }

# as_root COMMAND...: runs COMMAND as root, with sudo if needed.
as_root() {
  if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

# quietly LOG COMMAND...: runs COMMAND, writes its output to the file LOG, and shows it on failure.
quietly() {
  local log=$1
  shift
  mkdir -p "${log%/*}"
  "$@" >"$log" 2>&1 </dev/null || { cat "$log" >&2; return 1; }
}

# count TEXT COMMAND...: runs COMMAND, which calls ninja. Prints TEXT if there is work, and its progress
# on a terminal.
count() {
  local text=$1 line begun=
  shift
  NINJA_STATUS='[%f/%t] ' "$@" 2>&1 | {
    while IFS= read -r line; do
      printf '%s\n' "$line"
      [[ $line =~ ^\[([1-9][0-9]*/[0-9]+)\]\  ]] || continue
      if [[ -t 3 ]]; then
        printf '\r%s: %s' "$text" "${BASH_REMATCH[1]}" >&3
      elif [[ -z $begun ]]; then
        printf '%s\n' "$text" >&3
      fi
      begun=yes
    done
    if [[ -n $begun && -t 3 ]]; then printf '\n' >&3; fi
  }
}

# need PACKAGE...: installs the packages that are missing.
need() {
  local missing=() package
  for package in "$@"; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
      missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  if [[ $(id -u) != 0 ]] && ! command -v sudo >/dev/null; then
    say "packages are missing, and there is no sudo to install them with; as root:"
    say "apt-get install ${missing[*]}"
    exit 1
  fi
  say "installing ${missing[*]}"
  quietly build/packages.log as_root apt-get update -q
  quietly build/packages.log as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures and builds. Shows the full output only on failure.
build() {
  local preset=$1 folder=build/$1
  shift
  [[ $preset != default ]] || folder=build
  [[ -e $folder/build.ninja ]] || say "configuring $preset"
  quietly "build/$preset.log" cmake --preset "$preset"
  quietly "build/$preset.log" count "building $preset" \
    cmake --build --preset "$preset" ${*:+--target "$@"} 3>&2
  grep -E 'warning:' "build/$preset.log" >&2 || true
}
