#!/usr/bin/env bash
# Measures what the library costs, under Wine, beside what cannot be had for less. Installs what is
# missing (Debian 12) and builds what is not built.
#
#   ./bench.sh [--quick] [--large] [FAMILY]...
#
#   FAMILY   what to measure: exports, callbacks, streaming (default: all)
#   --quick  a few seconds: shows that everything runs, the figures mean little
#   --large  the sizes that take long, too
#
# Prints one table and writes it, the figures as JSON and a picture of each family below
# $NIMBRA_WORK/bench (NIMBRA_WORK: build/, or a folder in the user's cache where the checkout cannot
# be written). The figures are meant as ratios: docs/performance.md says how they are made.

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/scripts/lib.sh"

clean_up() {
  trap '' INT TERM
  end_running
  "$NIMBRA_SOURCE/scripts/wine-prefix.sh" --stop-all >/dev/null 2>&1 7>&- || true
  rm -rf --one-file-system -- "$TMPDIR"
}

build() {
  stage 'build, mingw-release' "$NIMBRA_WORK/logs/build-mingw-release.log" \
    "$NIMBRA_SOURCE/scripts/build.sh" --without-tests mingw-release nimbra_bench
}

main() {
  local argument
  for argument in "$@"; do
    case $argument in
      --help | -h) print_help && return ;;
      --quick | --large) ;;
      -*) usage_error "unknown option '$argument'" ;;
    esac
  done
  choose_work_directory
  exec 7>"$NIMBRA_WORK/.lock"
  flock -n 7 || die "Another run uses '$NIMBRA_WORK'. Wait for it, or set NIMBRA_WORK to a folder of" \
    "your own."
  export TMPDIR="$NIMBRA_WORK/tmp"
  mkdir -p -- "$TMPDIR" "$NIMBRA_WORK/logs"
  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  "$NIMBRA_SOURCE/scripts/setup.sh" --quiet demo 7>&-
  build || die "Nothing was measured."
  NIMBRA_TEST_TIMEOUT=600 interruptible "$NIMBRA_SOURCE/bench/run.py" \
    --bench "$NIMBRA_WORK/mingw-release/bench/nimbra-bench.exe" \
    --output "$NIMBRA_WORK/bench" "$@"
}

main "$@"
