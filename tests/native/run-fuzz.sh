#!/usr/bin/env bash
# Runs one fuzz target: first over its seeds and what earlier runs kept, then over new inputs.
#
#   run-fuzz.sh TARGET SEEDS WORK
#
# NIMBRA_FUZZ_SECONDS  how long (default 10; 60 finds more; 0 only repeats the known inputs)
#
# New inputs of interest are kept in WORK/corpus; one that fails goes to WORK/finds and is named
# with the command that repeats it. Exits with 0 if none failed.
set -euo pipefail

if (($# != 3)); then
  sed -n '2,/^set/{/^set/d;s/^# \{0,1\}//;p}' -- "${BASH_SOURCE[0]}" >&2
  exit 2
fi
readonly target=$1 seeds=$2 work=$3
readonly seconds=${NIMBRA_FUZZ_SECONDS:-10}
if ! [[ $seconds =~ ^[0-9]+$ ]]; then
  echo "NIMBRA_FUZZ_SECONDS must be a number of seconds, not '$seconds'" >&2
  exit 2
fi

mkdir -p -- "$work/corpus" "$work/finds"
shopt -s nullglob
seed_files=("$seeds"/*)
# Without its seeds a target passes without having reached anything.
if ((${#seed_files[@]} == 0)); then
  echo "There are no seeds in '$seeds'." >&2
  exit 1
fi

options=(-max_len=8192 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
  "-artifact_prefix=$work/finds/")
# For libFuzzer 0 seconds is no limit.
if ((seconds == 0)); then options+=(-runs=0); else options+=("-max_total_time=$seconds"); fi
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

touch -- "$work/started"
status=0
"$target" "${options[@]}" "$work/corpus" "$seeds" || status=$?
((status != 0)) || exit 0

while IFS= read -r -d '' find; do
  printf '\nFound: %s\nRepeat it with: %s %s\n' "$find" "$target" "$find"
done < <(find "$work/finds" -type f -newer "$work/started" -print0)
exit "$status"
