# shellcheck shell=bash
# What the project's commands share. Source it first: it sets the shell's strict mode and a fixed
# locale, under which Wine keeps non-Latin file names whole.

set -euo pipefail
export LC_ALL=C.UTF-8

NIMBRA_SOURCE="$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)"
readonly NIMBRA_SOURCE

if [[ -t 1 && -z ${NO_COLOR:-} && ${TERM:-dumb} != dumb ]]; then
  BOLD=$'\e[1m' DIM=$'\e[2m' GREEN=$'\e[32m' RED=$'\e[31m' PLAIN=$'\e[0m'
else
  BOLD='' DIM='' GREEN='' RED='' PLAIN=''
fi
# shellcheck disable=SC2034  # Used by the scripts that source this file.
readonly BOLD DIM GREEN RED PLAIN

# die <message>...: one paragraph of what happened, to what, and what to do about it.
die() {
  printf '%s: %s\n' "$(basename -- "$0")" "$*" >&2
  exit 1
}

# usage_error <message>: wrong arguments.
usage_error() {
  printf '%s: %s (see --help)\n' "$(basename -- "$0")" "$1" >&2
  exit 2
}

# print_help: the comment at the top of the running script is its manual.
print_help() {
  sed -n '2,/^$/{ s/^# \{0,1\}//p }' "$0"
}

# choose_work_directory: sets and exports NIMBRA_WORK, the folder that everything made goes to: the
# checkout's own build/ or, where that cannot be written, one in the user's cache.
choose_work_directory() {
  if [[ -z ${NIMBRA_WORK:-} ]]; then
    NIMBRA_WORK="$NIMBRA_SOURCE/build"
    if ! mkdir -p -- "$NIMBRA_WORK" 2>/dev/null || [[ ! -w $NIMBRA_WORK ]]; then
      local key
      key="$(printf '%s' "$NIMBRA_SOURCE" | sha256sum | cut -c1-12)"
      NIMBRA_WORK="${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/nimbra/$key"
    fi
  fi
  mkdir -p -- "$NIMBRA_WORK" || die "The work folder '$NIMBRA_WORK' cannot be made." \
    "Set NIMBRA_WORK to a folder that you can write to."
  NIMBRA_WORK="$(cd -- "$NIMBRA_WORK" && pwd -P)"
  export NIMBRA_WORK
}

# now: seconds since the epoch, with a fraction.
now() {
  printf '%s' "$EPOCHREALTIME"
}

# seconds_since <start>
seconds_since() {
  awk -v from="$1" -v to="$EPOCHREALTIME" 'BEGIN { printf "%.1f", to - from }'
}

# interruptible <command>...: runs it so that a signal to this script ends both at once. It is a job
# of its own, as otherwise it would ignore Ctrl+C and make all that it starts do so. Descriptor 7 is
# this script's lock, which nothing that it starts may hold.
interruptible() {
  local status=0
  set -m
  "$@" 7>&- &
  running=$!
  set +m
  wait "$running" || status=$?
  running=''
  return "$status"
}

# end_running: for a script's exit, ends what interruptible runs, with all that it started.
end_running() {
  [[ -z ${running:-} ]] || end_tree "$running"
  running=''
}

end_tree() {
  local child children
  children="$(pgrep -P "$1")" || true
  kill -TERM "$1" 2>/dev/null || true
  for child in $children; do end_tree "$child"; done
}

# show_failure <log>: its lines from the first error on, or else its last ones.
show_failure() {
  local most="${STAGE_LINES:-40}" first
  first="$(grep -n -m 1 -E '^FAILED: |error: |Error' -- "$1" | cut -d: -f1)" || true
  if [[ -n $first ]]; then
    tail -n "+$first" -- "$1" | awk -v most="$most" 'NR <= most'
  else
    tail -n "$most" -- "$1"
  fi | sed 's/^/    /'
  printf '    %s(all of it: %s)%s\n' "$DIM" "$1" "$PLAIN"
}

# stage <title> <log> <command>...: runs a step with its output in the log, and prints one line: the
# title, the outcome, the seconds. What failed follows.
stage() {
  local title=$1 log=$2 start status=0
  shift 2
  start="$(now)"
  printf '%s%-46s ' "${STAGE_INDENT:-  }" "$title"
  interruptible "$@" >"$log" 2>&1 </dev/null || status=$?
  if ((status == 0)); then
    printf '%sok%s %9s s\n' "$GREEN" "$PLAIN" "$(seconds_since "$start")"
  else
    printf '%sfailed%s %5s s\n' "$RED" "$PLAIN" "$(seconds_since "$start")"
    show_failure "$log"
  fi
  return "$status"
}

# mounts_below <folder>: the mount points in it, innermost first.
mounts_below() {
  local point
  while read -r _ point _; do
    printf -v point '%b' "${point//\\0/\\00}"
    [[ $point == "$1"/* ]] && printf '%s\n' "$point"
  done </proc/self/mounts | sort -r
}

# processes_in_prefixes_below <folder>: the ids of this user's processes whose Wine prefix lies there.
processes_in_prefixes_below() {
  local environment pid
  for environment in /proc/[0-9]*/environ; do
    [[ -r $environment ]] || continue
    pid="${environment#/proc/}"
    if tr '\0' '\n' 2>/dev/null <"$environment" | grep -qF -- "WINEPREFIX=$1/"; then
      printf '%s\n' "${pid%/environ}"
    fi
  done
}

# stop_program <executable>: ends every process of a program, first asking it to end by itself.
stop_program() {
  local executable pids=()
  for executable in /proc/[0-9]*/exe; do
    if [[ $(readlink -- "$executable" 2>/dev/null) == "$1" ]]; then
      executable="${executable#/proc/}"
      pids+=("${executable%/exe}")
    fi
  done
  ((${#pids[@]} > 0)) || return 0
  kill -TERM "${pids[@]}" 2>/dev/null || true
  timeout 10 tail -q -f /dev/null "${pids[@]/#/--pid=}" 2>/dev/null || true
  kill -KILL "${pids[@]}" 2>/dev/null || true
}
