#!/usr/bin/env bash
# Builds one half of the tree in the work folder and prints where.
#
#   scripts/build.sh [--without-tests] <preset> [target]...
#
#   --without-tests  configure without the tests where nothing is configured yet (needs less
#                    installed)

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
choose_work_directory

# forget_moved_build <folder>: a build folder that came here with a copied or moved checkout is of no
# use to CMake.
forget_moved_build() {
  local cache="$1/CMakeCache.txt"
  if [[ -f $cache ]] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$NIMBRA_SOURCE" "$cache"; then
    rm -rf -- "$1"
  fi
}

main() {
  local tests=ON
  if [[ ${1:-} == --without-tests ]]; then tests=OFF && shift; fi
  case ${1:-} in
    linux-release | linux-sanitized | mingw-release | mingw-checked | mingw-coverage | clang-release) ;;
    --help | -h) print_help && return ;;
    *) usage_error "unknown preset '${1:-}'" ;;
  esac
  local preset=$1 folder="$NIMBRA_WORK/$1" options=() targets=()
  shift

  forget_moved_build "$folder"
  if [[ $tests == ON || ! -f $folder/build.ninja ]]; then
    options+=("-DNIMBRA_BUILD_TESTS=$tests")
  fi
  if [[ $preset == mingw-* || $preset == clang-* ]]; then
    options+=("-DNIMBRA_FILTER_DAEMON=$NIMBRA_WORK/linux-release/bin/cloud-filterd"
      -DNIMBRA_BUILD_DEMO=ON)
  fi
  (($# == 0)) || targets=(--target "$@")
  cd -- "$NIMBRA_SOURCE"
  cmake --preset "$preset" -B "$folder" "${options[@]}"
  cmake --build "$folder" "${targets[@]}"
  printf '%s\n' "$folder"
}

main "$@"
