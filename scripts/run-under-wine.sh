#!/usr/bin/env bash
# Runs a Windows program under Wine: its streams and its exit code are the program's own.
#
#   scripts/run-under-wine.sh [--build N] [--prefix-name NAME] program [argument]...
#
#   --build N           the Windows build that the program sees (19045; see wine-prefix.sh)
#   --prefix-name NAME  a prefix of this name that calls share; otherwise a call has its prefix to
#                       itself while it runs
#
# NIMBRA_TEST_TIMEOUT  seconds after which the program and all it started are killed (120; 0: never)
# NIMBRA_WORK          the folder of the prefixes and all else that is made

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
choose_work_directory
# shellcheck source=scripts/wine.sh
source "$NIMBRA_SOURCE/scripts/wine.sh"

readonly LIMIT="${NIMBRA_TEST_TIMEOUT:-120}"

# choose_prefix <folder> <build> <name>: sets WINEPREFIX. Without a name it is the first that no
# other call uses; descriptor 8 keeps it until this script ends.
choose_prefix() {
  local slot
  mkdir -p -- "$1"
  if [[ -n $3 ]]; then
    WINEPREFIX="$1/$2-$3"
    return
  fi
  for slot in {0..63}; do
    WINEPREFIX="$1/$2-$slot"
    exec 8>"$WINEPREFIX.lock"
    if flock -n 8; then return; fi
  done
  die "64 programs run in prefixes of '$1' already."
}

# make_ready <template>: has $WINEPREFIX made and started. Only one at a time may do that.
make_ready() {
  exec 9>"$WINEPREFIX.start"
  flock 9
  if [[ ! -d $WINEPREFIX ]]; then
    rm -rf -- "$WINEPREFIX.new"
    cp -a -- "$1" "$WINEPREFIX.new"
    mv -T -- "$WINEPREFIX.new" "$WINEPREFIX"
  fi
  # shellcheck disable=SC2119  # Its arguments are for the first start of a new prefix.
  start_prefix || die "Wine does not start in '$WINEPREFIX'."
  exec 9>&-
}

# run_limited <program> <argument>...: timeout puts the program into a process group of its own and
# kills that group.
run_limited() {
  local child status=0 start=$SECONDS
  timeout --signal=KILL "$LIMIT" "$WINE" "$@" <&0 8>&- &
  child=$!
  trap 'kill -TERM "$child" 2>/dev/null' TERM INT HUP
  wait "$child" 2>/dev/null || status=$?
  if ((status == 124 || status > 128)) && ((LIMIT > 0 && SECONDS - start >= LIMIT)); then
    printf 'run-under-wine: killed after %s s: %s\n' "$LIMIT" "$1" >&2
    status=124
  elif ((status > 128 && status < 160)); then
    printf 'run-under-wine: ended by signal %s: %s\n' "$((status - 128))" "$1" >&2
  fi
  return "$status"
}

main() {
  local build=19045 name='' template
  while (($#)); do
    case $1 in
      --build) build="${2:-}" && shift ;;
      --prefix-name) name="${2:-}" && shift ;;
      --help | -h) print_help && return ;;
      -*) usage_error "unknown option '$1'" ;;
      *) break ;;
    esac
    shift
  done
  (($#)) || usage_error "which program?"
  [[ -z $name || $name =~ ^[A-Za-z][A-Za-z0-9-]*$ ]] || usage_error "bad prefix name '$name'"

  template="$("$NIMBRA_SOURCE/scripts/wine-prefix.sh" --build "$build")"
  choose_prefix "$(wine_root)/run" "$build" "$name"
  export WINEPREFIX
  make_ready "$template"
  run_limited "$@"
}

main "$@"
