#!/usr/bin/env bash
# Packs the tests into a zip that runs on a Windows 10 or 11 machine, against its own cldapi.dll.
#
#   ./package-tests.sh [--check] [ZIP]
#
#   ZIP      where to (nimbra-tests.zip in the work folder)
#   --check  also unpack it into a clean folder and run it under Wine, on the simulator
#
# On Windows: unpack it, start run.cmd in a console. It says at the top what it needs.

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/scripts/lib.sh"

# check_package <zip>: the simulator takes the place that cldapi.dll has in Windows.
check_package() {
  local folder="$NIMBRA_WORK/package-check" status=0
  local run=("$NIMBRA_SOURCE/scripts/run-under-wine.sh" --prefix-name package)
  local cldapi="$NIMBRA_WORK/mingw-release/simulator/cldapi.dll"
  rm -rf --one-file-system -- "$folder"
  mkdir -p -- "$folder"
  cmake -E chdir "$folder" cmake -E tar xf "$1"
  "${run[@]}" cmd /c copy "Z:${cldapi//\//\\}" 'C:\windows\system32\cldapi.dll'
  NIMBRA_TEST_TIMEOUT=600 "$NIMBRA_SOURCE/tests/conformance/run.sh" \
    "$NIMBRA_WORK/linux-release/bin/cloud-filterd" "" "${run[@]}" \
    cmd /c "Z:${folder//\//\\}\\nimbra-tests\\run.cmd" || status=$?
  ((status != 0)) || rm -rf --one-file-system -- "$folder"
  return "$status"
}

main() {
  local check=no zip=''
  while (($#)); do
    case $1 in
      --check) check=yes ;;
      --help | -h) print_help && return ;;
      -*) usage_error "unknown option '$1'" ;;
      *)
        [[ -z $zip ]] || usage_error "one zip at most"
        zip=$1
        ;;
    esac
    shift
  done
  choose_work_directory
  zip="${zip:-$NIMBRA_WORK/nimbra-tests.zip}"
  mkdir -p -- "$NIMBRA_WORK/logs"
  "$NIMBRA_SOURCE/scripts/setup.sh" --quiet test
  local preset presets=(mingw-release)
  [[ $check == no ]] || presets+=(linux-release)
  for preset in "${presets[@]}"; do
    stage "build, $preset" "$NIMBRA_WORK/logs/build-$preset.log" \
      "$NIMBRA_SOURCE/scripts/build.sh" "$preset" || exit 1
  done
  "$NIMBRA_SOURCE/tests/package/make-package.py" "$NIMBRA_WORK/mingw-release" "$zip"
  if [[ $check == yes ]]; then check_package "$(realpath -- "$zip")"; fi
}

main "$@"
