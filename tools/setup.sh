# Shared by the commands of this repository: installs what a Debian machine lacks. To be sourced.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libcurl4-openssl-dev nlohmann-json3-dev
  libsimdjson-dev libre2-dev libspdlog-dev libssl-dev libgtest-dev libbenchmark-dev ca-certificates
  dpkg-dev file)

# say TEXT: a step that may take a while, on stderr: stdout belongs to the command.
say() { printf '%s\n' "$*" >&2; }

# as_root COMMAND...: by sudo where the user is another.
as_root() {
  if [[ $(id -u) == 0 ]]; then "$@"; else sudo "$@"; fi
}

# need PACKAGE...: installs those that are missing; all its output goes to stderr.
need() {
  local missing=() package
  for package in "$@"; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
      missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  if [[ $(id -u) != 0 ]] && ! command -v sudo >/dev/null; then
    say "missing packages: ${missing[*]}"
    say "install them as root, since there is no sudo here: apt-get install ${missing[*]}"
    exit 1
  fi
  say "installing ${missing[*]}"
  as_root apt-get update -q >&2
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}" >&2
}

# build PRESET [TARGET...]: configures and builds; prints to stderr, and what went well only briefly.
build() {
  local preset=$1 log
  shift
  log=$(mktemp)
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${*:+--target "$@"}; } \
    >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  grep -E 'warning:' "$log" >&2 || true
  rm -f "$log"
}
