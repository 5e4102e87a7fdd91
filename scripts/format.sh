#!/usr/bin/env bash
# Formats the C++ sources with clang-format, or with --check reports the files
# that are not formatted and fails.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files 'src/*.cc' 'src/*.h' 'test/*.cc' 'test/*.h' 'bench/*.cc' 'bench/*.h')
((${#files[@]})) || exit 0
if [ "${1:-}" = "--check" ]; then
  bad=()
  for f in "${files[@]}"; do
    if ! clang-format --style=file "$f" | cmp -s - "$f"; then bad+=("$f"); fi
  done
  if ((${#bad[@]})); then
    echo "not formatted (run scripts/format.sh):" >&2
    printf '  %s\n' "${bad[@]}" >&2
    exit 1
  fi
  echo "format check: ${#files[@]} files clean"
else
  clang-format --style=file -i "${files[@]}"
fi
