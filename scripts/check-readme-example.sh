#!/usr/bin/env bash
# Checks that the C program shown in README.md is the one that the build compiles.

set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)

# The first block of C in the document.
shown=$(awk '/^```c$/ && !seen { inside = seen = 1; next } /^```$/ { inside = 0 } inside' \
  "$root/README.md")

if [[ -z $shown ]]; then
  echo "README.md has no block of C: start it with \`\`\`c" >&2
  exit 1
fi
if ! diff -u --label examples/readme-example.c --label README.md \
  "$root/examples/readme-example.c" <(printf '%s\n' "$shown"); then
  echo "README.md and examples/readme-example.c differ: copy the latter into the former" >&2
  exit 1
fi
