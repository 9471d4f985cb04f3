#!/usr/bin/env bash
# Runs a Windows program with a filter daemon of its own, and takes both down again.
#
#   tests/conformance/run.sh <cloud-filterd> <launcher> <program> [argument]...
#
# The program finds the daemon through CLOUD_FILTER_ENDPOINT and a folder for its sync roots in
# CLOUD_FILTER_TEST_DIR. The exit code is the program's; 77 says that it was skipped.
#
# NIMBRA_WORK       where the scratch folder is made
# NIMBRA_NO_FUSE=1  skip where /dev/fuse cannot be used
set -euo pipefail

if (($# < 3)); then
  printf 'usage: %s <cloud-filterd> <launcher> <program> [argument]...\n' "$0" >&2
  exit 2
fi
daemon=$1
launcher=$2
shift 2

if [[ ! -x $daemon ]]; then
  printf "The conformance tests need the filter daemon, not found at '%s'. Build the linux-release\n" \
    "$daemon" >&2
  printf 'preset and configure this one with -DNIMBRA_FILTER_DAEMON=<path>.\n' >&2
  exit 1
fi
if [[ ${NIMBRA_NO_FUSE:-} == 1 ]] && ! (: <>/dev/fuse) 2>/dev/null; then
  printf 'skipped: /dev/fuse cannot be used here\n'
  exit 77
fi

folder="$(mktemp -d "${NIMBRA_WORK:-${TMPDIR:-/tmp}}/conformance-XXXXXX")"
mkdir -- "$folder/roots"

# Called by the trap.
# shellcheck disable=SC2317
clean_up() {
  local status=$? point
  kill -TERM "$process" 2>/dev/null || true
  wait "$process" 2>/dev/null || true
  while read -r _ point _; do
    point="$(printf '%b' "$point")"
    if [[ $point == "$folder"/* ]]; then
      printf 'left mounted: %s\n' "$point" >&2
      fusermount3 -u -z "$point" || umount -l "$point" || true
      status=1
    fi
  done </proc/self/mounts
  ((status == 0)) || cat -- "$folder/daemon.log" >&2
  rm -rf --one-file-system -- "$folder"
  exit "$status"
}

"$daemon" --state "$folder/state" >"$folder/daemon.log" 2>&1 </dev/null &
process=$!
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

for ((i = 0; i < 200; i++)); do
  if grep -q 'cloud-filterd: ready' "$folder/daemon.log"; then break; fi
  kill -0 "$process" 2>/dev/null || break
  sleep 0.05
done
if ! grep -q 'cloud-filterd: ready' "$folder/daemon.log"; then
  printf 'The filter daemon did not get ready.\n' >&2
  exit 1
fi

export CLOUD_FILTER_ENDPOINT="$folder/state/endpoint"
export CLOUD_FILTER_TEST_DIR="$folder/roots"
if [[ -n $launcher ]]; then
  "$launcher" "$@"
else
  "$@"
fi
