#!/usr/bin/env bash
# Runs clang-tidy (the checks of the committed .clang-tidy files) over our
# sources and fails on any finding.
#
# Usage: scripts/check-tidy.sh BUILD_DIR [DIR...]
#   BUILD_DIR holds the compile_commands.json of a configured build (every
#   build writes one). DIRs (default: src tools tests bench fuzz examples)
#   choose the source files of that database to check; headers under them
#   are checked through the files that include them.
#   JOBS sets the number of parallel clang-tidy runs (default 2).
#   CLANG_TIDY overrides the program (default: clang-tidy-14, else clang-tidy).
# Prints each finding once, under the file whose run reported it, a count per
# check and the command that reproduces them; exits 1 on any finding or failed
# run, 2 on bad usage.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

if (($# < 1)) || [[ $1 == -* ]]; then
    echo "usage: $0 BUILD_DIR [DIR...]" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
shift
dirs=("$@")
((${#dirs[@]})) || dirs=(src tools tests bench fuzz examples)
database=$build/compile_commands.json
if [[ ! -f $database ]]; then
    echo "check-tidy: no $database (configure the build first)" >&2
    exit 2
fi
if [[ -z ${CLANG_TIDY:-} ]]; then
    CLANG_TIDY=clang-tidy
    command -v clang-tidy-14 >/dev/null && CLANG_TIDY=clang-tidy-14
fi
command -v "$CLANG_TIDY" >/dev/null || {
    echo "check-tidy: $CLANG_TIDY not found" >&2
    exit 2
}
jobs=${JOBS:-2}

# Findings in our headers, never in system or third-party ones.
# shellcheck disable=SC2001 # a character class, beyond ${var//}
root_regex=$(sed 's/[][\.*^$+?(){}|]/\\&/g' <<<"$root")
dir_regex=$(
    IFS='|'
    echo "${dirs[*]}|include"
)
header_filter="^$root_regex/($dir_regex)/"

# The source files of the database under the chosen directories, each once
# (a file built into two targets has two entries).
mapfile -t files < <(python3 - "$database" "$root" "${dirs[@]}" <<'EOF'
import json, os, sys
database, root, dirs = sys.argv[1], sys.argv[2], sys.argv[3:]
prefixes = tuple(os.path.join(root, d) + os.sep for d in dirs)
files = set()
for entry in json.load(open(database)):
    path = os.path.normpath(os.path.join(entry["directory"], entry["file"]))
    if path.startswith(prefixes):
        files.add(path)
print("\n".join(sorted(files)))
EOF
)
if ((${#files[@]} == 0)); then
    echo "check-tidy: no source files of ${dirs[*]} in $database" >&2
    exit 2
fi

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
start=$SECONDS
# One run per file; its report goes to a file named after its index. A run
# that fails without a finding (a crash, an unreadable file) leaves a .failed
# mark.
export CLANG_TIDY build header_filter out
# shellcheck disable=SC2016 # expanded by the shell that xargs starts
run_one='"$CLANG_TIDY" -p "$build" --quiet --header-filter="$header_filter" "$2" \
    >"$out/$1.log" 2>"$out/$1.err" || touch "$out/$1.failed"'
for i in "${!files[@]}"; do
    printf '%s\0%s\0' "$i" "${files[$i]}"
done | xargs -0 -n 2 -P "$jobs" bash -c "$run_one" _

finding_regex='^/[^:]+:[0-9]+:[0-9]+: (warning|error): .* \[[^]]+\]$'
declare -A seen=()
findings=()
failed=()
for i in "${!files[@]}"; do
    new=()
    if [[ -f $out/$i.log ]]; then
        while IFS= read -r line; do
            [[ -n ${seen[$line]:-} ]] && continue
            seen[$line]=1
            new+=("$line")
        done < <(grep -E "$finding_regex" "$out/$i.log" || true)
    fi
    if ((${#new[@]})); then
        echo "== ${files[$i]#"$root"/}"
        printf '%s\n' "${new[@]#"$root"/}"
        findings+=("${new[@]}")
    elif [[ -f $out/$i.failed ]]; then
        failed+=("${files[$i]#"$root"/}")
        echo "== clang-tidy failed on ${files[$i]#"$root"/}:"
        cat "$out/$i.err" "$out/$i.log"
    fi
done

elapsed=$((SECONDS - start))
if ((${#findings[@]})); then
    echo "check-tidy: ${#findings[@]} findings in ${#files[@]} files (${elapsed}s), per check:"
    printf '%s\n' "${findings[@]}" | sed -E 's/.*\[([^],]+)[],].*/\1/' | sort | uniq -c | sort -rn
    echo "Each finding is listed once, under the file whose run reported it; reproduce with"
    echo "  cd $root && $CLANG_TIDY -p $build --header-filter='$header_filter' FILE"
fi
if ((${#failed[@]})); then
    echo "check-tidy: clang-tidy failed on ${#failed[@]} files"
fi
if ((${#findings[@]} || ${#failed[@]})); then
    exit 1
fi
echo "check-tidy: ${#files[@]} files clean (${elapsed}s)"
