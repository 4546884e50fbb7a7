# Shared by the commands of this repository: installs what a Debian machine lacks. To be sourced.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev nlohmann-json3-dev
  libsimdjson-dev libre2-dev libspdlog-dev libssl-dev libgtest-dev libbenchmark-dev ca-certificates
  dpkg-dev file)

# say TEXT: on stderr, since stdout belongs to the command.
say() { printf '%s\n' "$*" >&2; }

# as_root COMMAND...: by sudo where the user is another.
as_root() {
  if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

# quietly LOG COMMAND...: keeps the output in the file LOG, and shows it if the command fails.
quietly() {
  local log=$1
  shift
  mkdir -p "${log%/*}"
  "$@" >"$log" 2>&1 </dev/null || { cat "$log" >&2; return 1; }
}

# count TEXT COMMAND...: says TEXT once ninja has something to do, with its count on a terminal.
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

# need PACKAGE...: installs those that are missing.
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

# build PRESET [TARGET...]: configures and builds. What went well is shown only briefly.
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
