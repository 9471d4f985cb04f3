#!/usr/bin/env bash
# Shows Nimbra at work: a folder appears as files that take no room, Explorer is told of it, and
# programs that know nothing of it open them. Installs what is missing (Debian 12); needs /dev/fuse.
#
#   ./demo.sh [--keep] [FOLDER]
#   ./demo.sh --stop
#
#   FOLDER  what to mirror; it is only read (default: the documents and some generated files)
#   --keep  leave everything running at the end, to look around
#   --stop  end what --keep left
#
# The exit code is 0 if every check held.

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/scripts/lib.sh"
# shellcheck source=scripts/demo-parts.sh
source "$NIMBRA_SOURCE/scripts/demo-parts.sh"
# shellcheck source=scripts/demo-explorer.sh
source "$NIMBRA_SOURCE/scripts/demo-explorer.sh"

show_listing() {
  step "Every file is there, and takes no room" \
    "The sync root holds placeholders: a name, a size and times, but no data."
  show_command "ls -l ${ROOT##*/}" ls -l "$ROOT"
  show_disk_use
  expect 'names and sizes as in the source' same_listing
  expect 'no bytes on disk before a program asks' nothing_on_disk
}

show_explorer_entry() {
  step "Explorer shows it" \
    "An entry of its own in the navigation pane: a class, and a hidden folder of shortcuts to roots."
  find_entry
  describe_entry >"$DEMO/entry.txt" || say "(There is none.)"
  sed 's/^/     /' "$DEMO/entry.txt"
  expect 'the entry is named like the source' entry_is_named_like_source
  expect 'its shortcut leads to the sync root' shortcut_leads_to_root
}

show_thumbnails() {
  local pictures
  mapfile -t pictures < <(find_pictures)
  step "Thumbnails without downloading" \
    "Another program asks for them through COM, as Explorer does; mirror makes them from its source."
  if ((${#pictures[@]} == 0)); then
    say "(There are no pictures here: this is left out.)"
    return
  fi
  show_command "e2e-thumbnail-client ${ROOT##*/}/... (each of ${#pictures[@]} pictures)" \
    ask_for_thumbnails "${pictures[@]}"
  show_events
  expect 'pictures that are not here have thumbnails' have_thumbnails "${pictures[@]}"
  expect 'no byte of a picture was fetched for it' nothing_was_fetched
  rm -f -- "$SHEET"
  show_command "contact-sheet thumbnails/*.png" make_contact_sheet
  expect 'they fit on a sheet to look at' test -s "$SHEET"
  say "Look at it: $SHEET"
}

show_first_read() {
  local file=$1
  step "A program opens one" \
    "sha256sum just reads. The filter lets it wait and asks mirror for the data."
  show_command "sha256sum '$file'" in_root sha256sum -- "$file"
  show_events
  expect 'an opened file has the right data' same_file "$file"
  show_disk_use
}

# sending_time <file>: how many milliseconds mirror takes for it.
sending_time() {
  printf '%s' "$(($(stat -L -c %s -- "$SOURCE/$1") / RATE / 1000))"
}

show_interrupted_read() {
  local file=$1 reader
  step "A reader is killed half-way" \
    "Nobody wants the rest any more: mirror hears of it. The next reader gets all of the file."
  if (($(sending_time "$file") < 400)); then
    say "(No file here takes long enough to send: this is left out.)"
    return
  fi
  cat -- "$ROOT/$file" >/dev/null 2>&1 7>&- &
  reader=$!
  sleep "$(awk -v time="$(sending_time "$file")" 'BEGIN { print time / 3000 }')"
  kill -KILL "$reader" 2>/dev/null || true
  wait "$reader" 2>/dev/null || true
  expect 'the killed reader left the file incomplete' incomplete "$file"
  expect 'mirror was told to stop sending' wait_for_event 'stopped'
  show_events
  show_command "sha256sum '$file'" in_root sha256sum -- "$file"
  show_events
  expect 'the next reader gets the whole file' same_file "$file"
}

show_windows_program() {
  local file=$1
  step "A Windows program does the same" \
    "xcopy under Wine, in another Windows than mirror's, copies a file out of the sync root."
  show_command "xcopy '$file' copies" copy_under_windows "$file"
  show_events
  expect 'a Windows program gets the right data' \
    cmp -s -- "$SOURCE/$file" "$DEMO/copies/${file##*/}"
}

show_whole_tree() {
  step "Everything is read" "cp -r fetches what is not on disk yet; then every byte is compared."
  show_command "cp -r ${ROOT##*/} copy" cp -r -- "$ROOT" "$DEMO/copy"
  show_events
  expect 'the copy equals the source' same_tree "$DEMO/copy"
  show_disk_use
  expect 'all bytes are on disk now' everything_on_disk
}

show_rename_and_delete() {
  local file=$1 moved
  moved="$(dirname -- "$file")/renamed-$(basename -- "$file")"
  moved="${moved#./}"
  step "A file is renamed, then deleted" \
    "mirror is asked first and agrees. Its source is only read: it keeps the file."
  show_command "mv '$file' '$moved'" in_root mv -- "$file" "$moved"
  expect 'a renamed file keeps its data' cmp -s -- "$SOURCE/$file" "$ROOT/$moved"
  expect 'mirror was told of the new name' wait_for_event "renamed"
  show_command "rm '$moved'" in_root rm -- "$moved"
  show_events
  expect 'a deleted file is gone' test ! -e "$ROOT/$moved"
  expect 'the source still has it' test -e "$SOURCE/$file"
}

show_dehydration() {
  step "The room is given back" \
    "mirror --dehydrate drops the data and keeps the placeholders; a new read fetches again."
  show_command "mirror --dehydrate ${ROOT##*/}" run_mirror --dehydrate "$(windows_path "$ROOT")"
  show_disk_use
  expect 'no bytes are on disk again' nothing_on_disk
  expect 'a file reads right once more' same_file "$1"
  show_events
}

end_demo() {
  step "Everything is taken down" "mirror disconnects, the folder is a normal one again."
  if [[ $KEEP == yes ]]; then
    say "Left running, as asked:"
    say "  the files    $ROOT"
    say "  what happens $DEMO/mirror.log"
    say "  to stop it   ./demo.sh --stop"
    trap - EXIT
  else
    expect 'mirror ended cleanly' stop_mirror
    expect 'the sync root could be unregistered' unregister_root
    expect 'Explorer shows it no more' entry_is_removed
    say "What stays of the entry, empty: $CLASSES\\$ENTRY"
    say "and its folder of shortcuts, $ENTRY_FOLDER"
    expect 'the cloud filter ended cleanly' stop_filter
    stop_everything
    trap - EXIT
    expect 'nothing is left mounted or running' nothing_left
  fi
}

run_demo() {
  printf '%sNimbra: files that are there before their data is%s\n' "$BOLD" "$PLAIN"
  prepare
  start_filter
  start_mirror
  local small large other
  small="$(pick_file middle)" large="$(pick_file largest)" other="$(pick_file second)"
  show_listing
  show_explorer_entry
  show_thumbnails
  show_first_read "$small"
  show_interrupted_read "$large"
  show_windows_program "$other"
  show_whole_tree
  show_rename_and_delete "$small"
  show_dehydration "$other"
  end_demo
  print_results
}

main() {
  local stop=no folder=''
  KEEP=no
  while (($#)); do
    case $1 in
      --keep) KEEP=yes ;;
      --stop) stop=yes ;;
      --help | -h) print_help && return ;;
      -*) usage_error "unknown option '$1'" ;;
      *)
        [[ -z $folder ]] || usage_error "one folder at most"
        folder=$1
        ;;
    esac
    shift
  done
  set_up_paths "$folder"
  SHEET="$NIMBRA_WORK/demo-thumbnails.png"
  if [[ $stop == yes ]]; then
    stop_kept_demo
    return
  fi
  run_demo
}

main "$@"
