# shellcheck shell=bash
# Wine prefixes, shared by the commands that need them. Source it after lib.sh and
# choose_work_directory.

find_wine() {
  local name
  for name in "$@"; do
    if command -v "$name" 2>/dev/null; then return; fi
  done
  die "Wine is not installed: run scripts/setup.sh."
}

# Debian's loader and server themselves; the wrappers in the path only cost time.
WINE="$(find_wine /usr/lib/wine/wine64 wine64 wine)"
WINESERVER="$(find_wine /usr/lib/wine/wineserver64 wineserver)"
readonly WINE WINESERVER
readonly WINDOWS_BUILDS=(16299 17134 17763 19045 22631)
# Stops nobody's server for good: one that is idle for so long ends by itself.
readonly WINESERVER_IDLE_SECONDS=300

export WINEDEBUG=-all
# No download prompts for what a bare Wine lacks, no entries in the user's menus.
export WINEDLLOVERRIDES='mscoree,mshtml=;winemenubuilder.exe=d'

# wine_root: the folder of all prefixes. They hold links into the installed Wine, so each version
# has its own.
wine_root() {
  printf '%s/wine/%s' "$NIMBRA_WORK" "$("$WINE" --version | tr -c 'A-Za-z0-9.\n-' _)"
}

is_windows_build() {
  local build
  for build in "${WINDOWS_BUILDS[@]}"; do
    [[ $1 == "$build" ]] && return
  done
  return 1
}

# start_prefix [<wineboot option>...]: has the server of $WINEPREFIX and its services running. They inherit the streams of
# the first process in a prefix, so without this the first program's pipes would never end.
start_prefix() {
  "$WINESERVER" -k0 2>/dev/null && return
  "$WINESERVER" "-p$WINESERVER_IDLE_SECONDS" </dev/null >/dev/null 2>&1 9>&- 8>&- 7>&- || true
  timeout 120 "$WINE" wineboot "$@" </dev/null >/dev/null 2>&1 9>&- 8>&- 7>&-
}

stop_prefix() {
  "$WINESERVER" -k >/dev/null 2>&1 || true
  timeout 20 "$WINESERVER" -w >/dev/null 2>&1 || true
}

# stop_prefixes: ends every process of every prefix in the work folder, those of tests included.
stop_prefixes() {
  local pids=() prefix
  while read -r prefix; do
    WINEPREFIX="${prefix%/system.reg}" "$WINESERVER" -k >/dev/null 2>&1 &
  done < <(find "$NIMBRA_WORK/wine" -maxdepth 4 -name system.reg 2>/dev/null)
  wait
  mapfile -t pids < <(processes_in_prefixes_below "$NIMBRA_WORK")
  ((${#pids[@]} == 0)) || kill -KILL "${pids[@]}" 2>/dev/null || true
}
