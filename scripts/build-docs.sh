#!/usr/bin/env bash
# Builds the documentation site, looks through it, and prints where it is. It works without a
# network and without a server: open index.html. Installs what is missing (Debian 12).
#
#   scripts/build-docs.sh [FOLDER]
#
#   FOLDER  where to (docs-site in the work folder); what an earlier build left there is replaced
#
# It fails if a function or a log line of the library is not described, or a link leads nowhere.

# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

readonly TOOLS="$NIMBRA_SOURCE/scripts/docs"

# is_ours <folder>: it is empty, or a site that was built here.
is_ours() {
  [[ ! -e $1 || -f $1/search/search_index.js || -z $(ls -A -- "$1") ]]
}

main() {
  local site=''
  while (($#)); do
    case $1 in
      --help | -h) print_help && return ;;
      -*) usage_error "unknown option '$1'" ;;
      *)
        [[ -z $site ]] || usage_error "one folder at most"
        site=$1
        ;;
    esac
    shift
  done
  choose_work_directory
  "$NIMBRA_SOURCE/scripts/setup.sh" --quiet docs
  site="$(realpath -m -- "${site:-$NIMBRA_WORK/docs-site}")"
  is_ours "$site" || die "'$site' holds something else: name an empty folder."

  "$TOOLS/log_lines.py" check
  "$TOOLS/api_reference.py" check
  "$TOOLS/build_site.py" "$NIMBRA_WORK/docs-pages" "$site"
  "$TOOLS/check_site.py" "$site"
  printf '%s\n' "$site"
}

main "$@"
