# shellcheck shell=bash
# What demo.sh shows of Explorer: the sync root's entry, and thumbnails. Source it after demo-parts.sh.

# The Explorer entry

readonly CLASSES='HKCU\Software\Classes\CLSID'
readonly EXPLORER='HKCU\Software\Microsoft\Windows\CurrentVersion\Explorer'

# registry <reg argument>...
registry() {
  local output
  output="$(in_windows reg query "$@" 2>/dev/null)" && printf '%s\n' "${output//$'\r'/}"
}

# find_entry: sets ENTRY, the class identifier that mirror keeps for the sync root, and
# ENTRY_FOLDER, the entry's folder of shortcuts.
find_entry() {
  local target
  ENTRY="$(registry 'HKCU\Software\Nimbra mirror\Explorer entries' | grep -F "\\${ROOT##*/} " |
    grep -o '{.*}' | tail -n 1)" || true
  target="$(registry "$CLASSES\\$ENTRY\\Instance\\InitPropertyBag" /v TargetFolderPath |
    sed -n 's/.*REG_EXPAND_SZ  *//p')" || true
  ENTRY_FOLDER="$(realpath -m -- "$(in_windows winepath -u "$target" | tr -d '\r')" 2>/dev/null)" ||
    true
}

# describe_entry: all that Explorer knows of it.
describe_entry() {
  [[ -n $ENTRY && -n $ENTRY_FOLDER ]] || return
  local key exports=()
  for key in "$CLASSES\\$ENTRY" "$EXPLORER\\Desktop\\NameSpace\\$ENTRY" \
    "$EXPLORER\\HideDesktopIcons\\NewStartPanel"; do
    exports+=("$DEMO/entry-${#exports[@]}.reg")
    in_windows reg export "$key" "$(windows_path "${exports[-1]}")" /y >/dev/null || return
  done
  "$NIMBRA_SOURCE/scripts/explorer_entry.py" "$ENTRY" "$ENTRY_FOLDER" "${exports[@]}"
}

entry_is_named_like_source() {
  grep -xF "  (Default) = Corvane Drive - ${SOURCE##*/}  (REG_EXPAND_SZ)" "$DEMO/entry.txt"
}

shortcut_leads_to_root() {
  grep -xF "  ${SOURCE##*/}.lnk -> $(windows_path "$ROOT")" "$DEMO/entry.txt"
}

# Its class stays as an empty key, and its folder empty.
entry_is_removed() {
  local class
  class="$(registry "$CLASSES\\$ENTRY")" || return
  [[ -z ${class//[$'\n' ]/} ]] || return
  if registry "$EXPLORER\\Desktop\\NameSpace\\$ENTRY"; then return 1; fi
  if registry "$EXPLORER\\HideDesktopIcons\\NewStartPanel" /v "$ENTRY"; then return 1; fi
  [[ -d $ENTRY_FOLDER && -z "$(ls -A -- "$ENTRY_FOLDER")" ]]
}

# Thumbnails

# find_pictures: the source's first dozen, by what is in them.
find_pictures() {
  local file start count=0
  while IFS= read -r file; do
    start="$(head -c 4 -- "$SOURCE/$file" | od -An -tx1 | tr -d ' \n')"
    case $start in
      89504e47 | 424d???? | 47494638 | ffd8ff?? | 49492a00 | 4d4d002a) ;;
      *) continue ;;
    esac
    printf '%s\n' "$file"
    count=$((count + 1))
    if ((count == 12)); then break; fi
  done < <(cd -- "$SOURCE" && find . -type f -printf '%P\n' |
    grep -iE '\.(png|bmp|gif|jpe?g|tiff?)$' | sort)
}

# ask_for_thumbnail <file> <PNG file>: from a program that is not mirror, but in its Windows. Into a
# log, as Wine's desktop, which may start with it, keeps what it prints to open.
ask_for_thumbnail() {
  in_windows "$DEMO/bin/e2e-thumbnail-client.exe" "$(windows_path "$ROOT/$1")" \
    "$(windows_path "$2")" >"$DEMO/thumbnail.log" 2>&1
}

# ask_for_thumbnails <file>...: writes them to files that are numbered and named like these.
ask_for_thumbnails() {
  local file number=0
  # What carries such calls between programs is part of Windows, but not of Wine.
  in_windows regsvr32 /s "$(windows_path "$DEMO/bin/thumbnail-proxy.dll")" >"$DEMO/thumbnail.log" 2>&1
  for file in "$@"; do
    number=$((number + 1))
    ask_for_thumbnail "$file" "$(printf '%s/%02d-%s.png' "$DEMO/thumbnails" "$number" \
      "$(basename -- "$file")")" || say "no thumbnail of $file: $(tail -n 1 -- "$DEMO/thumbnail.log")"
  done
}

make_contact_sheet() {
  "$NIMBRA_SOURCE/scripts/contact-sheet.py" "$SHEET" "$DEMO/thumbnails"/*.png
}

# have_thumbnails <file>...: of the user's own pictures Windows may not know every kind.
have_thumbnails() {
  local found
  found="$(find "$DEMO/thumbnails" -name '*.png' | wc -l)"
  ((found == $# || (found > 0 && ${#OWN_FOLDER} > 0)))
}

nothing_was_fetched() {
  nothing_on_disk && ! grep '^fetch' "$DEMO/mirror.log"
}
