#!/usr/bin/env bash
# Runs the commands that docs/start-linux.md and docs/simulator.md tell the reader to type, on what
# is built in the work folder.
#
#   scripts/check-guides.sh

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
choose_work_directory

readonly GUIDES=(start-linux simulator)
readonly LIMIT=300  # seconds for one guide

# commands_of <guide> <folder>: a script of its commands, with the work folder in the place of
# build/ and the other in that of /tmp. What installs and builds is left out.
commands_of() {
  cat <<'SCRIPT'
set -eux
trap 'jobs -p | xargs -r kill 2>/dev/null || true' EXIT
await_client() {
  timeout 120 sh -c 'until grep -q "^mirror: ready" "$OUTPUT"; do sleep 0.1; done'
}
SCRIPT
  awk '
    /^```sh$/ { inside = 1; last = ""; next }
    /^```$/ && inside {
      inside = 0
      # The reader looks at another terminal here, until the client is ready.
      if (last ~ /&$/) print "await_client"
      next
    }
    inside && !/^(\.\/demo\.sh|scripts\/(setup|build)\.sh )/ { print; last = $0 }
  ' "$NIMBRA_SOURCE/docs/$1.md" |
    sed -e 's#/tmp/#@folder@/#g' -e 's#\bbuild/#@work@/#g' -e 's#mktemp -d#& -p @folder@#' \
      -e "s#Z:\\\\tmp\\\\#Z:${2//\//\\\\}\\\\#g" -e "s#@folder@#$2#g" -e "s#@work@#$NIMBRA_WORK#g"
}

check_guide() {
  local guide=$1 folder status=0
  folder="$(mktemp -d "$NIMBRA_WORK/guide-XXXXXX")"
  mkdir -- "$folder/tmp"
  commands_of "$guide" "$folder/tmp" >"$folder/commands.sh"
  (($(wc -l <"$folder/commands.sh") > 10)) || die "docs/$guide.md has no commands."
  cd -- "$NIMBRA_SOURCE"
  # shellcheck disable=SC2094  # The commands look for a line of their own output.
  OUTPUT="$folder/output" timeout --kill-after=20 "$LIMIT" \
    bash "$folder/commands.sh" >"$folder/output" 2>&1 </dev/null || status=$?
  cat -- "$folder/output"
  rm -rf --one-file-system -- "$folder"
  ((status == 0)) || die "The commands of docs/$guide.md do not work (status $status)."
}

main() {
  local guide
  for guide in "${GUIDES[@]}"; do
    check_guide "$guide"
  done
}

main "$@"
