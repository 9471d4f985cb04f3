#!/usr/bin/env bash
# Measures what the library costs, under Wine, beside what cannot be had for less. Installs what is
# missing (Debian 12) and builds what is not built.
#
#   ./bench.sh [--quick] [--large] [--compare OLD.json] [FAMILY]...
#
#   FAMILY   what to measure: exports, callbacks, streaming, filter, shell, load (default: all)
#   --quick  a few seconds: shows that everything runs, the figures mean little
#   --large  the sizes that take long, too
#   --compare OLD.json
#            says at the end what has changed since an earlier run, whose results.json this is, beyond
#            the noise of both
#
# Prints one table and writes it, the figures as JSON and a picture of each family below
# $NIMBRA_WORK/bench (NIMBRA_WORK: build/, or a folder in the user's cache where the checkout cannot
# be written). The figures are meant as ratios: docs/performance.md says how they are made.

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/scripts/lib.sh"

# The sync roots are in memory where there is enough of it: a disk's own doings say nothing here.
readonly MEMORY=/dev/shm
readonly ENOUGH_KIB=$((6 << 20))

has_room_in_memory() {
  local free
  [[ -w $MEMORY ]] && free="$(df -k --output=avail -- "$MEMORY" | tail -n 1)" &&
    ((free >= ENOUGH_KIB)) &&
    (($(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo) >= ENOUGH_KIB))
}

take_mounts_away() {
  local point
  while read -r point; do
    fusermount3 -u -z "$point" 2>/dev/null || umount -l "$point" 2>/dev/null || true
  done < <(mounts_below "$1")
}

clean_up() {
  trap '' INT TERM
  end_running
  "$NIMBRA_SOURCE/scripts/wine-prefix.sh" --stop-all >/dev/null 2>&1 7>&- || true
  stop_program "$NIMBRA_WORK/linux-release/bin/cloud-filterd"
  take_mounts_away "$NIMBRA_WORK"
  take_mounts_away "$files"
  rm -rf --one-file-system -- "$TMPDIR" "$NIMBRA_WORK"/e2e-* "$files"
}

# build <preset> <target>...
build() {
  stage "build, $1" "$NIMBRA_WORK/logs/build-$1.log" \
    "$NIMBRA_SOURCE/scripts/build.sh" --without-tests "$@" ||
    die "Nothing was measured."
}

main() {
  local argument value=''
  for argument in "$@"; do
    if [[ -n $value ]]; then value='' && continue; fi
    case $argument in
      --help | -h) print_help && return ;;
      --compare) value=expected ;;
      --quick | --large) ;;
      -*) usage_error "unknown option '$argument'" ;;
    esac
  done
  [[ -z $value ]] || usage_error "compare with which run?"
  choose_work_directory
  exec 7>"$NIMBRA_WORK/.lock"
  flock -n 7 || die "Another run uses '$NIMBRA_WORK'. Wait for it, or set NIMBRA_WORK to a folder of" \
    "your own."
  export TMPDIR="$NIMBRA_WORK/tmp"
  mkdir -p -- "$TMPDIR" "$NIMBRA_WORK/logs"
  files="$TMPDIR"
  if has_room_in_memory; then files="$(mktemp -d -p "$MEMORY" nimbra-bench.XXXXXX)"; fi
  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  "$NIMBRA_SOURCE/scripts/setup.sh" --quiet demo 7>&-
  build linux-release cloud-filterd nimbra_bench_null_provider
  build mingw-release nimbra cldapi nimbra_bench nimbra_bench_load nimbra_bench_nothing
  local built="$NIMBRA_WORK/mingw-release"
  NIMBRA_TEST_TIMEOUT=600 interruptible "$NIMBRA_SOURCE/bench/run.py" \
    --output "$NIMBRA_WORK/bench" --files "$files" --daemon "$NIMBRA_WORK/linux-release/bin/cloud-filterd" \
    --null-provider "$NIMBRA_WORK/linux-release/bench/null-provider" \
    --library "$built/bin/Nimbra.dll" --cldapi "$built/simulator/cldapi.dll" \
    --bench "$built/bench/nimbra-bench.exe" --loader "$built/bench/load-once.exe" \
    --nothing "$built/bench/nothing.dll" "$@"
}

main "$@"
