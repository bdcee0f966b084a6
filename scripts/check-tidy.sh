#!/usr/bin/env bash
# Runs clang-tidy over the sources of the product, with the compile commands of a build directory.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

build=$(realpath "${1:?Usage: scripts/check-tidy.sh BUILD_DIR}")
[[ -e $build/compile_commands.json ]] || fail "$build has no compile_commands.json"
cd "$root"
mapfile -t files < <(git -c safe.directory="$root" ls-files '*.cpp' ':!tests' ':!bench')
((${#files[@]} > 0)) || fail 'check-tidy: no tracked sources'
# An option that clang does not know is an error to it.
commands=$(mktemp -d)
cleanup() { rm -rf "$commands"; }
sed 's/ -fno-gnu-unique//g' "$build/compile_commands.json" >"$commands/compile_commands.json"
# Some options are the compiler's own, and what it warns of is its own affair too.
printf '%s\0' "${files[@]}" |
    xargs -0 -n 1 -P 2 clang-tidy --quiet -p "$commands" --extra-arg=-Wno-unknown-warning-option --extra-arg=-Wno-error 2>&1 |
    sed -E '/^[0-9]+ warnings? generated\.$/d'  # in system headers, not shown
