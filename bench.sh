#!/usr/bin/env bash
# Measures what the library costs, under Wine, beside what cannot be had for less. Installs what is
# missing (Debian 12) and builds what is not built.
#
#   ./bench.sh [--quick] [--large] [FAMILY]...
#
#   FAMILY   what to measure: exports, callbacks, streaming, filter, shell, load (default: all)
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
  local point
  "$NIMBRA_SOURCE/scripts/wine-prefix.sh" --stop-all >/dev/null 2>&1 7>&- || true
  stop_program "$NIMBRA_WORK/linux-release/bin/cloud-filterd"
  while read -r point; do
    fusermount3 -u -z "$point" 2>/dev/null || umount -l "$point" 2>/dev/null || true
  done < <(mounts_below "$NIMBRA_WORK")
  rm -rf --one-file-system -- "$TMPDIR" "$NIMBRA_WORK"/e2e-*
}

# build <preset> <target>...
build() {
  stage "build, $1" "$NIMBRA_WORK/logs/build-$1.log" \
    "$NIMBRA_SOURCE/scripts/build.sh" --without-tests "$@" ||
    die "Nothing was measured."
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
  build linux-release cloud-filterd
  build mingw-release nimbra cldapi e2e_provider nimbra_bench nimbra_bench_load nimbra_bench_nothing
  local built="$NIMBRA_WORK/mingw-release"
  NIMBRA_TEST_TIMEOUT=600 interruptible "$NIMBRA_SOURCE/bench/run.py" \
    --output "$NIMBRA_WORK/bench" --daemon "$NIMBRA_WORK/linux-release/bin/cloud-filterd" \
    --library "$built/bin/Nimbra.dll" --cldapi "$built/simulator/cldapi.dll" \
    --provider "$built/tests/e2e/programs/e2e-provider.exe" \
    --bench "$built/bench/nimbra-bench.exe" --loader "$built/bench/load-once.exe" \
    --nothing "$built/bench/nothing.dll" "$@"
}

main "$@"
