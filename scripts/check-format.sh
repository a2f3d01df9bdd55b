#!/usr/bin/env bash
# Fails when clang-format (with the committed .clang-format) would change any
# tracked C or C++ file, and lists those files.
#
# Usage: scripts/check-format.sh
#   CLANG_FORMAT overrides the program (default: clang-format-14, else
#   clang-format; other major versions format some constructs differently).
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ -z ${CLANG_FORMAT:-} ]]; then
    CLANG_FORMAT=clang-format
    command -v clang-format-14 >/dev/null && CLANG_FORMAT=clang-format-14
fi
command -v "$CLANG_FORMAT" >/dev/null || {
    echo "check-format: $CLANG_FORMAT not found" >&2
    exit 2
}

mapfile -d '' files < <(git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.cxx' '*.h' '*.hh' '*.hpp')
changed=()
for file in "${files[@]}"; do
    if ! "$CLANG_FORMAT" --style=file "$file" | cmp -s - "$file"; then
        changed+=("$file")
    fi
done

if ((${#changed[@]})); then
    echo "check-format: clang-format would change ${#changed[@]} of ${#files[@]} files:"
    printf '  %s\n' "${changed[@]}"
    echo "Fix with: $CLANG_FORMAT -i <files>"
    exit 1
fi
echo "check-format: ${#files[@]} files formatted"
