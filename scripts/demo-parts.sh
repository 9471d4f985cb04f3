# shellcheck shell=bash
# The parts that demo.sh is made of: how it speaks, what it starts and stops, what it checks. What it
# shows of Explorer is in demo-explorer.sh.

RATE=40  # MB/s that mirror sends with: slow enough to see something, fast enough to wait for
readonly WIDTH=50
export STAGE_INDENT='   '

step_number=0
checks=()
results=()
events_shown=0

# How it speaks

say() {
  printf '   %s\n' "$*"
}

# step <title> <why it matters>
step() {
  step_number=$((step_number + 1))
  printf '\n%s%s  %s%s\n' "$BOLD" "$step_number" "$1" "$PLAIN"
  printf '   %s%s%s\n' "$DIM" "$2" "$PLAIN"
}

# show_command <as shown> <command>...: runs it and shows the first lines of what it prints.
show_command() {
  local status=0 output
  printf '   %s$%s %s\n' "$BOLD" "$PLAIN" "$1"
  output="$("${@:2}" 2>&1 7>&- </dev/null)" || status=$?
  [[ -z $output ]] || awk 'NR <= 12 { print "     " $0 } END { if (NR > 12) print "     ..." }' \
    <<<"${output//$'\r'/}"
  ((status == 0)) || say "${RED}(ended with code $status)$PLAIN"
}

# show_events: what mirror said since the last time; of many lines only the last.
show_events() {
  local lines
  sleep 0.3
  mapfile -t lines < <(tail -n "+$((events_shown + 1))" -- "$DEMO/mirror.log" | tr -d '\r')
  events_shown=$((events_shown + ${#lines[@]}))
  ((${#lines[@]} == 0)) || printf '%s\n' "${lines[@]}" | grep -vE '^mirror:|^wine:|^[0-9]+ items' |
    awk -v dim="$DIM" -v plain="$PLAIN" -v most=6 '
      { line[NR] = $0 }
      END {
        if (NR > most) printf "   %smirror | ... %d more lines%s\n", dim, NR - most, plain
        for (i = (NR > most ? NR - most + 1 : 1); i <= NR; ++i)
          printf "   %smirror | %s%s\n", dim, line[i], plain
      }' || true
}

# expect <check> <command>...
expect() {
  checks+=("$1")
  if "${@:2}" >"$DEMO/check.log" 2>&1 </dev/null 7>&-; then
    results+=(held)
    printf '   %sok%s      %s\n' "$GREEN" "$PLAIN" "$1"
  else
    results+=(FAILED)
    printf '   %sFAILED%s  %s\n' "$RED" "$PLAIN" "$1"
    head -n 5 -- "$DEMO/check.log" | sed 's/^/           /'
  fi
}

print_results() {
  local i failed=0
  printf '\n%s%-*s %s%s\n' "$BOLD" "$WIDTH" Check Result "$PLAIN"
  for i in "${!checks[@]}"; do
    printf '%-*s %s\n' "$WIDTH" "${checks[i]}" "${results[i]}"
    [[ ${results[i]} == held ]] || failed=$((failed + 1))
  done
  printf '\n%s checks held, %s failed\n' "$((${#checks[@]} - failed))" "$failed"
  ((failed == 0))
}

# Where things are

# set_up_paths <folder or nothing>
set_up_paths() {
  choose_work_directory
  DEMO="$NIMBRA_WORK/demo"
  ROOT="$DEMO/Cloud"
  SOURCE="$DEMO/source"
  FILTER="$NIMBRA_WORK/linux-release/bin/cloud-filterd"
  export CLOUD_FILTER_ENDPOINT="$DEMO/filter/endpoint"
  OWN_FOLDER=''
  if [[ -n $1 ]]; then
    [[ -d $1 ]] || die "There is no folder '$1'. Give one that exists, or none."
    SOURCE="$(cd -- "$1" && pwd -P)" || die "The folder '$1' cannot be entered. Choose another one."
    OWN_FOLDER=yes
    [[ "$ROOT/" != "$SOURCE"/* ]] || die "The demo works below '$SOURCE': choose a folder that does" \
      "not contain '$NIMBRA_WORK'."
  fi
}

windows_path() {
  printf 'Z:%s' "${1//\//\\}"
}

in_root() {
  (cd -- "$ROOT" && "$@")
}

# pick_file middle|second|largest: a file of the source. "second" is one that is not the first.
pick_file() {
  local files
  mapfile -t files < <(cd -- "$SOURCE" && find . -type f -size +0 -printf '%s %P\n' | sort -n |
    cut -d' ' -f2-)
  case $1 in
    largest) printf '%s' "${files[-1]}" ;;
    middle) printf '%s' "${files[${#files[@]} / 2]}" ;;
    second) printf '%s' "${files[${#files[@]} / 3]}" ;;
  esac
}

# What it starts

prepare() {
  step "What is needed" "Two halves: the library and mirror for Windows, and a cloud filter for Linux."
  mkdir -p -- "$NIMBRA_WORK/logs"
  exec 7>"$NIMBRA_WORK/.lock"
  flock -n 7 || die "Another demo or test run uses '$NIMBRA_WORK'. Wait for it, or set NIMBRA_WORK to" \
    "a folder of your own."
  if [[ -e $DEMO/running ]]; then
    die "The demo runs already, in '$DEMO'. End it with: ./demo.sh --stop"
  fi
  trap stop_everything EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  "$NIMBRA_SOURCE/scripts/setup.sh" --quiet demo 7>&-
  require_fuse
  local build="$NIMBRA_SOURCE/scripts/build.sh" logs="$NIMBRA_WORK/logs"
  stage 'build the cloud filter' "$logs/demo-linux.log" \
    "$build" --without-tests linux-release cloud-filterd || exit 1
  stage 'build Nimbra.dll, mirror.exe and cldapi.dll' "$logs/demo-mingw.log" \
    "$build" --without-tests mingw-release nimbra mirror cldapi e2e_thumbnail_client \
    thumbnail-proxy || exit 1
  rm -rf --one-file-system -- "$DEMO"
  mkdir -p -- "$DEMO/bin" "$DEMO/copies" "$DEMO/thumbnails" "$ROOT"
  stage 'make a Windows (a Wine prefix)' "$logs/demo-wine.log" \
    "$NIMBRA_SOURCE/scripts/wine-prefix.sh" || exit 1
  local built="$NIMBRA_WORK/mingw-release"
  ln -s -- "$built/bin/Nimbra.dll" "$built/bin/mirror.exe" "$built/simulator/cldapi.dll" \
    "$built/tests/e2e/programs/e2e-thumbnail-client.exe" \
    "$built/tests/thumbnail-proxy/thumbnail-proxy.dll" "$DEMO/bin/"
  prepare_source
}

prepare_source() {
  if [[ -z $OWN_FOLDER ]]; then
    stage 'make the source folder' "$NIMBRA_WORK/logs/demo-source.log" \
      "$NIMBRA_SOURCE/scripts/make-sample-folder.py" "$SOURCE" "$NIMBRA_SOURCE/docs" || exit 1
  fi
  local unreadable
  unreadable="$(find "$SOURCE" -type f ! -readable -print -quit)"
  [[ -z $unreadable ]] || die "'$unreadable' cannot be read. Choose a folder that you may read."
  [[ -n "$(find "$SOURCE" -type f -size +0 -print -quit)" ]] ||
    die "'$SOURCE' has no file with anything in it. Choose another folder."
  local megabytes
  megabytes="$(du -s --apparent-size -BMB -- "$SOURCE" | cut -dM -f1)"
  ((megabytes / 15 < RATE)) || RATE=$((megabytes / 15))
  say "The source: $(find "$SOURCE" -type f | wc -l) files, $megabytes MB, in $SOURCE"
}

require_fuse() {
  if ! { exec 6<>/dev/fuse; } 2>/dev/null; then
    die "/dev/fuse cannot be opened, so no folder can show files whose data is not there, and there is" \
      "nothing to see. On a desktop load the module (modprobe fuse); start a container with" \
      "--device /dev/fuse --cap-add SYS_ADMIN."
  fi
  exec 6>&-
}

start_filter() {
  step "The cloud filter starts" \
    "On Windows it is part of the system; here a FUSE daemon stands in for it."
  : >"$DEMO/running"
  setsid "$FILTER" --state "$DEMO/filter" >"$DEMO/filter.log" 2>&1 </dev/null 7>&- &
  if ! wait_for_line "$DEMO/filter.log" 'cloud-filterd: ready' 20; then
    tail -n 5 -- "$DEMO/filter.log" >&2
    die "The cloud filter does not start. Its log is above."
  fi
  say "$(tail -n 1 -- "$DEMO/filter.log")"
}

# in_windows <program> <argument>...: in mirror's own Windows.
in_windows() {
  NIMBRA_TEST_TIMEOUT="${MIRROR_LIMIT:-120}" "$NIMBRA_SOURCE/scripts/run-under-wine.sh" \
    --prefix-name demo-mirror "$@"
}

# run_mirror <argument>...
run_mirror() {
  in_windows "$DEMO/bin/mirror.exe" "$@"
}

start_mirror() {
  local arguments=(--explorer --rate "$RATE" --stop-file "$(windows_path "$DEMO/stop")"
    "$(windows_path "$SOURCE")" "$(windows_path "$ROOT")")
  step "mirror shows the source in a sync root" \
    "A sample client of Nimbra: it registers the folder and creates a placeholder for each file."
  printf '   %s$%s mirror --explorer --rate %s source %s\n' "$BOLD" "$PLAIN" "$RATE" "${ROOT##*/}"
  MIRROR_LIMIT=0 run_mirror "${arguments[@]}" >"$DEMO/mirror.log" 2>&1 </dev/null 7>&- &
  if ! wait_for_line "$DEMO/mirror.log" 'mirror: ready' 60; then
    tail -n 5 -- "$DEMO/mirror.log" >&2
    die "mirror does not start. What it said is above."
  fi
  say "mirror: ready"
  show_events
}

# wait_for_line <file> <text> <seconds>
wait_for_line() {
  local end=$((SECONDS + $3))
  until grep -qF -- "$2" "$1" 2>/dev/null; do
    ((SECONDS < end)) || return 1
    sleep 0.1
  done
}

wait_for_event() {
  wait_for_line "$DEMO/mirror.log" "$1" 10
}

# What it stops

stop_mirror() {
  : >"$DEMO/stop"
  wait_for_line "$DEMO/mirror.log" 'mirror: stopped' 20
}

unregister_root() {
  run_mirror --unregister "$(windows_path "$ROOT")"
}

stop_filter() {
  timeout 20 "$FILTER" --state "$DEMO/filter" --stop && ! mounts_below "$DEMO" | grep -q .
}

# stop_everything: whatever is still there, also in the middle of a failure.
stop_everything() {
  local point
  end_running
  [[ ! -d $DEMO ]] || : >"$DEMO/stop"
  "$NIMBRA_SOURCE/scripts/wine-prefix.sh" --stop-all >/dev/null 2>&1 7>&- || true
  stop_program "$FILTER"
  while read -r point; do
    fusermount3 -u -z "$point" 2>/dev/null || umount -l "$point" 2>/dev/null || true
  done < <(mounts_below "$DEMO")
  rm -f -- "$DEMO/running"
}

stop_kept_demo() {
  [[ -e $DEMO/running ]] || die "No demo is running in '$DEMO': there is nothing to stop."
  stop_mirror || true
  unregister_root >/dev/null 2>&1 || true
  stop_filter >/dev/null 2>&1 || true
  stop_everything
  if nothing_left; then say "The demo is stopped; nothing is left mounted or running."; fi
}

nothing_left() {
  ! mounts_below "$DEMO" | grep . && ! processes_in_prefixes_below "$NIMBRA_WORK" | grep .
}

# What it checks

# Links to files count as files, as they do under Windows.
listing() {
  (cd -- "$1" && find . -type d -printf '%p/\n' -o -xtype f -exec stat -L -c '%n %s' {} + | sort)
}

same_listing() {
  diff <(listing "$SOURCE") <(listing "$ROOT")
}

# same_tree <copy>
same_tree() {
  local name
  while IFS= read -r -d '' name; do
    cmp -- "$SOURCE/$name" "$1/$name" || return
  done < <(find "$SOURCE" -xtype f -printf '%P\0')
}

same_file() {
  cmp -- "$SOURCE/$1" "$ROOT/$1"
}

# filter_says <name>: a number from the filter's own account of the sync root.
filter_says() {
  "$FILTER" --state "$DEMO/filter" --status | sed -n "s/.*\"$1\": \([0-9]*\).*/\1/p"
}

# Both what the file system counts, in blocks of 512 bytes, and what the filter does.
nothing_on_disk() {
  find "$ROOT" -type f -printf '%b %s %P\n' |
    awk '$1 > 0 { print; bad = 1 } END { exit bad || NR == 0 }' && (($(filter_says bytesOnDisk) == 0))
}

everything_on_disk() {
  find "$ROOT" -type f -printf '%b %s %P\n' |
    awk '$1 * 512 < $2 { print; bad = 1 } END { exit bad || NR == 0 }' &&
    (($(filter_says bytesOnDisk) >= $(filter_says bytesTotal)))
}

incomplete() {
  stat -c '%b %s' -- "$ROOT/$1" | awk '{ exit !($1 * 512 < $2) }'
}

show_disk_use() {
  local disk total
  disk="$(filter_says bytesOnDisk)" total="$(filter_says bytesTotal)"
  say "on disk: $(numfmt --to=iec-i --suffix=B "$disk" "$total" | paste -sd ' ' | sed 's/ / of /')" \
    "($disk of $total bytes, by the filter's account)"
}

copy_under_windows() {
  "$NIMBRA_SOURCE/scripts/run-under-wine.sh" --prefix-name demo-reader \
    xcopy /Y "$(windows_path "$ROOT/$1")" "$(windows_path "$DEMO/copies")"
}
