#!/usr/bin/env bash
# Builds everything and runs every check: lint, the cloud filter's own tests, the library's tests
# under Wine, the end-to-end tests, what builds natively with the compiler's sanitizers and a fuzzer,
# what runs under Wine once more in a build that ends at the first mistake with memory and at
# undefined behaviour, the library's own tests in a build of the second toolchain, and two builds of
# the library that must be the same. Installs what is missing (Debian 12).
#
#   ./test.sh [--quick | --checked | --clang | --coverage | --soak [SECONDS]] [-R REGEX]
#
#   --quick         leave out clang-tidy, the end-to-end tests, the sanitizers, the checked build, the
#                   second toolchain and the builds that must be the same
#   --checked       only the tests in the checked build
#   --clang         only the tests in the build of the second toolchain, clang and lld, and all of them
#   --coverage      only which lines and branches of the library its own tests run; fails for a line
#                   that never runs and is not in tests/coverage-exceptions.txt
#   --soak SECONDS  only a constant load for that long (1800), under which nothing may grow; the
#                   ordinary run has one of two minutes
#   -R REGEX        only the CTest tests whose names match, no lint, no sanitizers, and the checked
#                   build only with --checked
#
# NIMBRA_WORK       where everything is built (build/, or a folder in the user's cache where the
#                   checkout cannot be written)
# NIMBRA_NO_FUSE=1  skip, rather than fail, what needs /dev/fuse
# NIMBRA_FUZZ_SECONDS  how long each fuzz target runs (60)
#
# The last line is "N passed, N failed"; the exit code is 0 if none failed and some passed.

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/scripts/lib.sh"

passed=0
failed=0
skipped=0
mode=full
soak_seconds=1800
filter=''
selection=()  # what ctest gets for the filter

# count <passed> <failed> <skipped>
count() {
  passed=$((passed + $1))
  failed=$((failed + $2))
  skipped=$((skipped + $3))
}

# check <title> <log name> <command>...: a stage that counts as one test.
check() {
  if stage "$1" "$LOGS/$2.log" "${@:3}"; then count 1 0 0; else count 0 1 0; fi
}

finish() {
  printf '\n%s passed, %s failed' "$passed" "$failed"
  ((skipped == 0)) || printf ', %s skipped' "$skipped"
  printf '\n'
  ((failed == 0 && passed > 0))
}

shell_scripts() {
  find "$NIMBRA_SOURCE/scripts" "$NIMBRA_SOURCE/tests" -name '*.sh'
  printf '%s\n' "$NIMBRA_SOURCE"/{test,demo,bench,package-tests}.sh "$NIMBRA_SOURCE/.ci/run"
}

check_shell() {
  local scripts
  mapfile -t scripts < <(shell_scripts)
  cd -- "$NIMBRA_SOURCE" && shellcheck -x "${scripts[@]}"
}

check_format() {
  local folders=()
  for folder in bench examples include lib simulator tests tools; do
    [[ ! -d $NIMBRA_SOURCE/$folder ]] || folders+=("$NIMBRA_SOURCE/$folder")
  done
  find "${folders[@]}" \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.c' \) -print0 |
    xargs -0 clang-format --dry-run -Werror
}

# run_ctest <title> <preset> <ctest option>...: counts the single tests.
run_ctest() {
  local title=$1 preset=$2 start junit counts status=0
  shift 2
  junit="$LOGS/$preset.xml"
  start="$(now)"
  printf '  %-46s ' "$title"
  rm -f -- "$junit"
  interruptible ctest --test-dir "$NIMBRA_WORK/$preset" -j2 --output-junit "$junit" --timeout 300 \
    --test-output-size-passed 100000000 --test-output-size-failed 100000000 \
    "$@" >"$LOGS/$preset-ctest.log" 2>&1 </dev/null || status=$?
  if [[ ! -f $junit ]]; then
    printf '%sfailed%s %5s s\n' "$RED" "$PLAIN" "$(seconds_since "$start")"
    tail -n 20 -- "$LOGS/$preset-ctest.log"
    count 0 1 0
    return
  fi
  "$NIMBRA_SOURCE/scripts/count-tests.py" "$junit" >"$LOGS/$preset-failures.log"
  read -ra counts < <(tail -n 1 -- "$LOGS/$preset-failures.log")
  # ctest knows best whether something went wrong.
  if ((status != 0 && counts[1] == 0)) && [[ -z $filter ]]; then counts[1]=1; fi
  count "${counts[@]}"
  if ((counts[1] == 0)); then
    printf '%sok%s %9s s   %s passed' "$GREEN" "$PLAIN" "$(seconds_since "$start")" "${counts[0]}"
  else
    printf '%sfailed%s %5s s   %s passed, %s failed' "$RED" "$PLAIN" "$(seconds_since "$start")" \
      "${counts[0]}" "${counts[1]}"
  fi
  ((counts[2] == 0)) || printf ', %s skipped' "${counts[2]}"
  printf '\n'
  head -n -1 -- "$LOGS/$preset-failures.log"
}

lint() {
  check 'shell scripts (shellcheck)' shellcheck check_shell
  check 'format (clang-format)' clang-format check_format
  check 'the example in README.md' readme "$NIMBRA_SOURCE/scripts/check-readme-example.sh"
  check 'the documents, each log line and export' docs "$NIMBRA_SOURCE/scripts/build-docs.sh"
  [[ $mode == quick ]] || STAGE_LINES=200 check 'static analysis (clang-tidy)' clang-tidy \
    "$NIMBRA_SOURCE/scripts/tidy.py" --stamps "$NIMBRA_WORK/tidy-stamps" \
    "$NIMBRA_WORK"/{linux-release,mingw-release,linux-sanitized}
}

# Whatever happened, nothing that the tests started or mounted stays.
clean_up() {
  trap '' INT TERM
  local point
  end_running
  "$NIMBRA_SOURCE/scripts/wine-prefix.sh" --stop-all >/dev/null 2>&1 7>&- || true
  stop_program "$NIMBRA_WORK/linux-release/bin/cloud-filterd"
  while read -r point; do
    fusermount3 -u -z "$point" 2>/dev/null || umount -l "$point" 2>/dev/null || true
  done < <(mounts_below "$NIMBRA_WORK")
  rm -rf --one-file-system -- "$TMPDIR" "$NIMBRA_WORK"/{e2e,conformance}-*
}

# build_targets <preset> [target]...: all of them without a target.
build_targets() {
  if ! stage "build, $1" "$LOGS/build-$1.log" "$NIMBRA_SOURCE/scripts/build.sh" "$@"; then
    count 0 1 0
    return 1
  fi
}

# build <preset>...: stops at the first that fails.
build() {
  local preset
  for preset in "$@"; do
    build_targets "$preset" || return
  done
}

run_ordinary() {
  local presets=(linux-release mingw-release)
  [[ $mode != full || -n $filter ]] || presets+=(linux-sanitized)
  build "${presets[@]}" || return 0
  [[ -n $filter ]] || lint
  run_ctest 'cloud filter (native)' linux-release "${selection[@]}"
  if [[ $mode == quick ]]; then
    run_ctest 'library (Wine)' mingw-release "${selection[@]}" -E '^e2e'
  else
    run_ctest 'library and end to end (Wine)' mingw-release "${selection[@]}"
  fi
}

# What goes to a Windows machine, run here as it would be there.
check_package() {
  check 'the tests packed for Windows (Wine)' package "$NIMBRA_SOURCE/package-tests.sh" --check
}

# What the reader of the guides types, typed.
check_guides() {
  if [[ ${NIMBRA_NO_FUSE:-} == 1 ]] && ! (: <>/dev/fuse) 2>/dev/null; then
    printf '  %-46s skipped: /dev/fuse cannot be used\n' 'the commands in the guides (Wine)'
    count 0 0 1
  else
    check 'the commands in the guides (Wine)' guides "$NIMBRA_SOURCE/scripts/check-guides.sh"
  fi
}

run_sanitized() {
  export NIMBRA_FUZZ_SECONDS="${NIMBRA_FUZZ_SECONDS:-60}"
  run_ctest 'sanitizers and fuzzer (native)' linux-sanitized
}

run_checked() {
  build mingw-checked || return 0
  run_ctest 'the same, memory and behaviour checked (Wine)' mingw-checked "${selection[@]}"
}

# The second toolchain. The ordinary run has time for the library's own tests, for what the images
# are asked to have and for programs that link with it; --clang runs all.
run_clang() {
  local targets=() tests=("${selection[@]}")
  if [[ $mode != clang ]]; then
    targets=(nimbra nimbra_msvc_import_library mirror readme-example nimbra_unit_tests nimbra_dll_tests
      nimbra_dll_tests_without_manifest nimbra_dll_tests_with_partial_platform nimbra_bare_host
      nimbra_header_in_c nimbra_header_in_cpp)
    tests=(-R '^(nimbra_unit_tests|nimbra_dll_tests|nimbra_header|abi|protections|install\.library)'
      -E '^protections\.(minimal|nimbractl)$')
  fi
  build_targets clang-release "${targets[@]}" || return 0
  run_ctest 'built with clang and lld (Wine)' clang-release "${tests[@]}"
}

check_reproducible() {
  local folder="$NIMBRA_SOURCE/tests/reproducible"
  check 'differing builds are told apart' comparison "$folder/test_comparison.py"
  check 'the same bytes from two folders' reproducible \
    "$folder/check.py" "$NIMBRA_WORK/reproducible"
}

# The tests of the library's own; those of all parts together would hide what these leave out. The
# fault matrix knows the calls of the library, not those of the counting, and what dies in the middle
# of a schedule would have to write its counts first.
run_coverage() {
  build mingw-coverage || return 0
  find "$NIMBRA_WORK/mingw-coverage" -name '*.gcda' -delete
  run_ctest 'library (Wine)' mingw-coverage -E '^(e2e|cldapi|nimbra_(fault|stress))'
  local log="$LOGS/coverage.log"
  STAGE_LINES=200 check 'every line runs that should' coverage \
    "$NIMBRA_SOURCE/scripts/coverage.py" "$NIMBRA_WORK/mingw-coverage"
  printf '\n'
  grep -E ' %$|^file ' -- "$log" || true
}

run_soak() {
  local files=() file built="$NIMBRA_WORK/mingw-release"
  for file in bin/Nimbra.dll bin/mirror.exe simulator/cldapi.dll \
    tests/e2e/programs/e2e-{provider,reader}.exe; do
    files+=(--file "$built/$file")
  done
  check "a load for $soak_seconds s" soak python3 "$NIMBRA_SOURCE/tests/e2e/run.py" \
    --daemon "$NIMBRA_WORK/linux-release/bin/cloud-filterd" "${files[@]}" --soak "$soak_seconds"
  tail -n 20 -- "$LOGS/soak.log"
}

main() {
  while (($#)); do
    case $1 in
      --quick | --checked | --clang | --coverage | --soak)
        [[ $mode == full ]] || usage_error "--$mode and $1 do not go together"
        mode=${1#--}
        if [[ $mode == soak && ${2:-} =~ ^[1-9][0-9]*$ ]]; then soak_seconds=$2 && shift; fi
        ;;
      -R) filter="${2:-}" && shift ;;
      --help | -h) print_help && return ;;
      *) usage_error "unknown argument '$1'" ;;
    esac
    shift
  done
  [[ -z $filter || ($mode != coverage && $mode != soak) ]] ||
    usage_error "--$mode and -R do not go together"
  choose_work_directory
  exec 7>"$NIMBRA_WORK/.lock"
  flock -n 7 || die "Another run uses '$NIMBRA_WORK'. Wait for it, or set NIMBRA_WORK to a folder of" \
    "your own."
  [[ ! -e $NIMBRA_WORK/demo/running ]] || die "The demo runs in '$NIMBRA_WORK'. End it first:" \
    "./demo.sh --stop"
  export TMPDIR="$NIMBRA_WORK/tmp"
  LOGS="$NIMBRA_WORK/logs"
  readonly LOGS
  mkdir -p -- "$TMPDIR" "$LOGS"
  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM

  printf '%sNimbra%s: all checks. Work folder: %s\n' "$BOLD" "$PLAIN" "$NIMBRA_WORK"
  [[ -z $filter ]] || selection=(-R "$filter" --no-tests=ignore)
  local purpose=test
  [[ $mode != coverage ]] || purpose=coverage
  "$NIMBRA_SOURCE/scripts/setup.sh" --quiet "$purpose" 7>&-
  case $mode in
    coverage) run_coverage ;;
    checked) build linux-release && run_checked ;;
    clang) build linux-release && run_clang ;;
    soak) build linux-release mingw-release && run_soak ;;
    quick) run_ordinary ;;
    full)
      run_ordinary
      if [[ -z $filter ]]; then
        check_package
        check_guides
        soak_seconds=120 run_soak
        run_sanitized
        run_checked
        run_clang
        check_reproducible
      fi
      ;;
  esac
  finish
}

main "$@"
