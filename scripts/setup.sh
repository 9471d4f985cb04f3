#!/usr/bin/env bash
# Installs what the project's commands need and this machine lacks (Debian 12, with apt).
#
#   scripts/setup.sh [--quiet] [test|demo|docs|coverage]
#
#   test      everything for ./test.sh (the default)
#   demo      only what ./demo.sh needs
#   docs      only what scripts/build-docs.sh needs
#   coverage  what ./test.sh --coverage needs
#   --quiet   print nothing if nothing is missing

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

readonly DEMO_PACKAGES=(cmake ninja-build g++ g++-mingw-w64-x86-64-posix mingw-w64-tools pkg-config
  libcli11-dev nlohmann-json3-dev libfuse3-dev fuse3 libsqlite3-dev wine64 wine python3 util-linux
  procps)
readonly TEST_PACKAGES=(googletest clang libclang-rt-dev clang-format clang-tidy shellcheck git
  rustc libstd-rust-dev-windows mono-mcs
  clang-19 lld-19 llvm-19 nuget python3-jsonschema)
readonly DOCS_PACKAGES=(mkdocs mkdocs-material python3)
readonly COVERAGE_PACKAGES=(gcovr)

installed() {
  [[ $(dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null) == ?i* ]]
}

# Python is as good from elsewhere.
needed() {
  [[ $1 == python3 ]] && command -v python3 >/dev/null && return 1
  ! installed "$1"
}

as_root() {
  if ((EUID == 0)); then
    "$@"
  else
    sudo -n "$@"
  fi
}

install_packages() {
  local log
  log="$(mktemp)"
  # shellcheck disable=SC2064  # The name is wanted as it is now.
  trap "rm -f '$log'" EXIT
  if ! as_root env DEBIAN_FRONTEND=noninteractive sh -c '
      apt-get -q update && apt-get -q -y install --no-install-recommends "$@"' sh "$@" \
    >"$log" 2>&1 </dev/null; then
    tail -n 15 -- "$log" >&2
    die "apt-get could not install: $*. Check the network and the package sources, or install them" \
      "by hand."
  fi
}

main() {
  local quiet=no purpose=test
  while (($#)); do
    case $1 in
      --quiet) quiet=yes ;;
      --help | -h) print_help && return ;;
      test | demo | docs | coverage) purpose=$1 ;;
      *) usage_error "unknown argument '$1'" ;;
    esac
    shift
  done

  command -v dpkg-query >/dev/null || die "This is not a Debian system: install by hand the" \
    "counterparts of ${DEMO_PACKAGES[*]} ${TEST_PACKAGES[*]} ${DOCS_PACKAGES[*]}."
  local wanted=() missing=() package
  case $purpose in
    demo) wanted=("${DEMO_PACKAGES[@]}") ;;
    docs) wanted=("${DOCS_PACKAGES[@]}") ;;
    *) wanted=("${DEMO_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${DOCS_PACKAGES[@]}") ;;
  esac
  [[ $purpose != coverage ]] || wanted+=("${COVERAGE_PACKAGES[@]}")
  for package in "${wanted[@]}"; do
    if needed "$package"; then missing+=("$package"); fi
  done
  if ((${#missing[@]} == 0)); then
    [[ $quiet == yes ]] || echo "Everything needed is installed."
    return
  fi
  ((EUID == 0)) || sudo -n true 2>/dev/null || die "Missing packages: ${missing[*]}." \
    "Install them as root: apt-get install --no-install-recommends ${missing[*]}"
  echo "installing: ${missing[*]}"
  install_packages "${missing[@]}"
}

main "$@"
