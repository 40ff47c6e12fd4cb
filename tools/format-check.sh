#!/bin/sh
# Every tracked C and C++ source must be as clang-format (with the root .clang-format) writes it.
# Prints the files that differ and fails; run "clang-format -i FILE..." to fix them.
set -eu
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || { echo "format-check: clang-format is not installed" >&2; exit 1; }
bad=$(git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | while read -r f; do
    clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || echo "$f"
done)
if [ -n "$bad" ]; then
    echo "format-check: not clang-formatted:" >&2
    echo "$bad" >&2
    exit 1
fi
echo "format-check: $(git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | wc -l) files clang-formatted"
