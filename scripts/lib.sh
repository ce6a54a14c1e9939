# Shared by the scripts of this folder: the packages that the project needs, and how they get onto the machine.
# shellcheck shell=bash

# What configuring and building everything takes.
build_packages=(
  cmake ninja-build g++ pkg-config libglib2.0-dev libcurl4-openssl-dev libboost-dev nettle-dev
  libmicrohttpd-dev libpugixml-dev libsqlite3-dev nlohmann-json3-dev libcli11-dev libfmt-dev libgtest-dev libgmock-dev
)
# What the lab's namespaces and its router take; libfaketime speeds the scenarios up.
lab_packages=(python3 iproute2 util-linux procps psmisc nftables miniupnpd-nftables libfaketime)
# What the checks of style and the tests take beside these.
check_packages=(clang-format clang-tidy shellcheck mandoc binutils tinyproxy tshark chromium chromium-driver)
# Clang with libFuzzer.
fuzz_packages=(clang libclang-rt-dev)
# What scripts/bench measures with, and beside. The daemons are unpacked only; what they need is installed.
bench_packages=(
  valgrind strace binutils g++-arm-linux-gnueabihf libgcrypt20-dev libssl-dev libspdlog-dev libconfuse2 libgnutls30
  libnfnetlink0
)
bench_daemons=(minissdpd wsdd2 inadyn)
# What making the Debian packages takes, and what trying them in a clean Debian takes beside that.
packaging_packages=(dpkg-dev gzip)
trial_packages=(debootstrap lintian iproute2 util-linux procps systemd)
export build_packages lab_packages check_packages fuzz_packages bench_packages bench_daemons packaging_packages
export trial_packages

# say WORDS: one line for the person at the terminal, on standard error.
say() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
}

# fail WORDS: says why, and ends the script with status 1.
fail() {
  say "$@"
  exit 1
}

# missing_packages PACKAGE...: prints those that are not installed, one a line.
missing_packages() {
  local package
  for package in "$@"; do
    if [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
      printf '%s\n' "$package"
    fi
  done
}

# ensure_packages PACKAGE...: installs what is missing, as root or with sudo, unless no_install is set. Says in one
# sentence when it can't, and returns 1.
ensure_packages() {
  local missing as_root=()
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    say "this is not Debian or a relative of it: make sure yourself that the likes of these are there: $*"
    return 0
  fi
  mapfile -t missing < <(missing_packages "$@")
  if ((${#missing[@]} == 0)); then
    return 0
  fi
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      say "these packages are missing, and installing them takes root or sudo: ${missing[*]}"
      return 1
    fi
    as_root=(sudo)
  fi
  if [[ -n ${no_install:-} ]]; then
    say "these packages are missing: ${missing[*]}; install them, or leave --no-install out"
    return 1
  fi
  say "installing with apt-get on this machine: ${missing[*]}"
  if ! install_packages "${as_root[@]}" -- "${missing[@]}"; then
    say "apt-get could not install ${missing[*]}; its last words are above"
    return 1
  fi
}

# install_packages [sudo] -- PACKAGE...: the package lists are fetched anew only when the first attempt fails.
install_packages() {
  local as_root=() log status
  if [[ $1 != -- ]]; then
    as_root=("$1")
    shift
  fi
  shift
  log=$(mktemp)
  local get=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get --quiet --yes --no-install-recommends)
  "${get[@]}" install "$@" >"$log" 2>&1 || { "${get[@]}" update && "${get[@]}" install "$@"; } >"$log" 2>&1
  status=$?
  if ((status != 0)); then
    tail -n 5 "$log" >&2
  fi
  rm -f "$log"
  return "$status"
}

# build_preset PRESET TARGET...: configures and builds into build/PRESET, from the project's folder. Shows the tool's
# own progress on a terminal, and its last words when it fails.
build_preset() {
  local preset=$1 log
  shift
  log=build/$preset.log
  if ! mkdir -p build || ! : >"$log"; then
    say "nothing can be built here: $log can't be written; use a copy of the project that is yours"
    return 1
  fi
  if ! cmake --preset "$preset" >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    say "configuring failed; the whole story is in $log"
    return 1
  fi
  if [[ -t 1 ]]; then
    cmake --build "build/$preset" --target "$@" && return 0
    say "building failed"
    return 1
  fi
  if ! cmake --build "build/$preset" --target "$@" >>"$log" 2>&1; then
    grep -A 15 -m 3 -E 'error|FAILED' "$log" >&2
    say "building failed; the whole story is in $log"
    return 1
  fi
}
