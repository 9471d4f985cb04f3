#!/usr/bin/env bash
# Prints the folder of a Wine prefix that reports a given Windows build, made at the first call. It
# is a template: copy it (cp -a, a few milliseconds) and run programs in the copy.
#
#   scripts/wine-prefix.sh [--build 16299|17134|17763|19045|22631] [--stop-all]
#
#   --build     the build to report; 19045 unless given
#   --stop-all  end every process in the work folder's prefixes instead

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
choose_work_directory
# shellcheck source=scripts/wine.sh
source "$NIMBRA_SOURCE/scripts/wine.sh"

# Debian's Wine copies 700 MB of its own modules into each prefix. Links do as well and start faster.
link_builtin_modules() {
  local modules=/usr/lib/x86_64-linux-gnu/wine/x86_64-windows file module
  while IFS= read -r -d '' file; do
    module="$modules/$(basename -- "$file")"
    if [[ -f $module ]] && cmp -s -- "$file" "$module"; then ln -sf -- "$module" "$file"; fi
  done < <(find "$1/drive_c/windows" "$1/drive_c/Program Files" -type f -print0)
}

# import_registry: reads a .reg file's lines from standard input into $WINEPREFIX.
import_registry() {
  { printf 'REGEDIT4\r\n' && sed 's/$/\r/'; } >"$WINEPREFIX/drive_c/import.reg"
  timeout 60 "$WINE" regedit /S 'C:\import.reg' </dev/null >/dev/null 2>&1 9>&-
  rm -f -- "$WINEPREFIX/drive_c/import.reg"
}

# With Wine's own debugger a crashed program may still exit with 0.
disable_crash_debugger() {
  import_registry <<'REG'
[HKEY_LOCAL_MACHINE\Software\Microsoft\Windows NT\CurrentVersion\AeDebug]
"Debugger"="false"
REG
}

# Windows itself says "6.3" in CurrentVersion; Wine 8 takes the version it reports from there.
set_windows_build() {
  import_registry <<REG
[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion]
"CSDVersion"=""
"CurrentBuild"="$1"
"CurrentBuildNumber"="$1"
"CurrentMajorVersionNumber"=dword:0000000a
"CurrentMinorVersionNumber"=dword:00000000
"CurrentType"="Multiprocessor Free"
"CurrentVersion"="10.0"
"ProductName"="Windows 10 Pro"

[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Control\\Windows]
"CSDVersion"=dword:00000000
REG
  local reported
  reported="$(timeout 60 "$WINE" cmd /c ver </dev/null 2>/dev/null 9>&- | tr -d '\r')"
  [[ $reported == *"10.0.$1"* ]] || die "A new Wine prefix reports '$reported', not build $1."
}

# make_template <folder> <function that fills $WINEPREFIX>...
make_template() {
  local folder=$1
  shift
  export WINEPREFIX="$folder.new"
  trap stop_prefix EXIT
  "$@"
  stop_prefix
  mv -T -- "$WINEPREFIX" "$folder"
}

create_base() {
  start_prefix --init || die "Wine could not make a prefix in '$WINEPREFIX'."
  disable_crash_debugger
  stop_prefix
  link_builtin_modules "$WINEPREFIX"
}

create_build() {
  cp -a -- "$1" "$WINEPREFIX"
  start_prefix
  set_windows_build "$2"
}

main() {
  local build=19045 root
  while (($#)); do
    case $1 in
      --build) build="${2:-}" && shift ;;
      --stop-all) stop_prefixes && return ;;
      --help | -h) print_help && return ;;
      *) usage_error "unknown argument '$1'" ;;
    esac
    shift
  done
  is_windows_build "$build" || usage_error "no such build: '$build'; known are ${WINDOWS_BUILDS[*]}"

  root="$(wine_root)"
  mkdir -p -- "$root"
  if [[ ! -d $root/template-$build ]]; then
    exec 9>"$root/lock"
    flock 9  # Others may be at it: the second to come finds everything made.
    rm -rf -- "$root"/*.new
    [[ -d $root/base ]] || make_template "$root/base" create_base
    [[ -d $root/template-$build ]] ||
      make_template "$root/template-$build" create_build "$root/base" "$build"
  fi
  printf '%s\n' "$root/template-$build"
}

main "$@"
