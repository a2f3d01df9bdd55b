#!/usr/bin/env bash
# Compares the functions a built library exports with the ones declared in
# include/dsp.h (the 86 functions, then the extensions section): none may be
# missing, none extra, and none listed twice in a .def file.
#
# Usage: scripts/check-exports.sh FILE...
#   FILE is a shared library (.so, read with nm -D), a Windows DLL (.dll,
#   read with objdump -p) or a module definition file (.def).
# Prints the differences per file; exits 1 on any difference, 2 on bad usage.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
header=${DSP_HEADER:-$root/include/dsp.h}

files=()
for arg in "$@"; do
    case $arg in
    -h | --help)
        sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'
        exit 0
        ;;
    -*)
        echo "check-exports: unknown option $arg" >&2
        exit 2
        ;;
    *) files+=("$arg") ;;
    esac
done
if ((${#files[@]} == 0)); then
    echo "usage: $0 LIBRARY|DEF..." >&2
    exit 2
fi

# Declarations start a line with DSP_API; the name is the identifier right
# before the opening parenthesis. The header's extensions follow the line
# that opens their section; everything before it is the 86 functions.
extensions_marker='Extensions beyond the 86 functions'
declarations() { # declarations base|extensions: names in header order
    awk -v want="$1" -v marker="$extensions_marker" '
        index($0, marker) { inExtensions = 1 }
        /^DSP_API[[:space:]]/ && ((want == "extensions") == (inExtensions == 1)) { print }' "$header" |
        sed -E 's/^([^(]*[^A-Za-z0-9_(])([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*\(.*/\2/'
}
declared_names() {
    { declarations base; declarations extensions; } | sort -u
}

objdump_for() {
    # The host objdump reads PE files when built with those targets; the
    # mingw-w64 one always does.
    local candidate
    for candidate in objdump x86_64-w64-mingw32-objdump i686-w64-mingw32-objdump; do
        if command -v "$candidate" >/dev/null && "$candidate" -p "$1" >/dev/null 2>&1; then
            echo "$candidate"
            return 0
        fi
    done
    return 1
}

def_names() {
    awk 'toupper($1) == "EXPORTS" { inExports = 1; next }
         inExports && $1 ~ /^[A-Za-z_][A-Za-z0-9_]*$/ { print $1 }' "$1"
}

exported_names() {
    local file=$1
    case $file in
    *.dll | *.DLL)
        local tool
        tool=$(objdump_for "$file") || {
            echo "check-exports: no objdump reads $file" >&2
            return 1
        }
        # The export name table: lines "[ ordinal] name" after its heading.
        "$tool" -p "$file" | awk '
            /^\[Ordinal\/Name Pointer\] Table/ { inTable = 1; next }
            inTable && /^[[:space:]]*\[[[:space:]]*[0-9]+\][[:space:]]+/ { print $NF; next }
            inTable && NF == 0 { inTable = 0 }'
        ;;
    *.def)
        def_names "$file"
        ;;
    *)
        # Defined dynamic symbols of function type (plain, weak, indirect).
        nm -D --defined-only "$file" | awk '$2 ~ /^[TtWi]$/ { print $3 }' | sed 's/@.*//'
        ;;
    esac | sort -u
}

declared=$(declared_names)
declared_count=$(grep -c . <<<"$declared")
base_count=$(declarations base | grep -c .)
extension_count=$(declarations extensions | grep -c . || true)
status=0
if ((base_count != 86)); then
    echo "FAIL $header: $base_count functions before the extensions section, not 86"
    status=1
fi
duplicates=$({ declarations base; declarations extensions; } | sort | uniq -d)
if [[ -n $duplicates ]]; then
    echo "FAIL $header: declared more than once: $duplicates"
    status=1
fi
for file in "${files[@]}"; do
    if [[ ! -f $file ]]; then
        echo "FAIL $file: no such file"
        status=1
        continue
    fi
    exported=$(exported_names "$file") || {
        status=1
        continue
    }
    if [[ $file == *.def ]]; then
        repeated=$(def_names "$file" | sort | uniq -d)
        if [[ -n $repeated ]]; then
            echo "FAIL $file: listed more than once:" $repeated
            status=1
        fi
    fi
    missing=$(comm -23 <(echo "$declared") <(echo "$exported") | grep . || true)
    extra=$(comm -13 <(echo "$declared") <(echo "$exported") | grep . || true)
    missing_count=$(grep -c . <<<"$missing" || true)
    extra_count=$(grep -c . <<<"$extra" || true)
    verdict=OK
    if ((missing_count > 0 || extra_count > 0)); then
        verdict=FAIL
        status=1
    fi
    echo "$verdict $file: $((declared_count - missing_count)) of $declared_count declared functions ($base_count and $extension_count extensions) exported, $missing_count missing, $extra_count extra"
    if ((missing_count > 0)); then
        sed 's/^/  missing: /' <<<"$missing"
    fi
    if ((extra_count > 0)); then
        sed 's/^/  extra:   /' <<<"$extra"
    fi
done
exit $status
