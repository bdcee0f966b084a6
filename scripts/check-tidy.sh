#!/usr/bin/env bash
# Runs clang-tidy over the sources of the product, or those that are named, with the compile commands of a build
# directory. A file that was found clean is not looked at again as long as nothing has changed that the result depends
# on: clang-tidy itself, its checks, the command, and the source with everything that it includes.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage='Usage: scripts/check-tidy.sh BUILD_DIR [FILE...]'
build=$(realpath "${1:?$usage}")
shift
[[ -e $build/compile_commands.json ]] || fail "$build has no compile_commands.json"
cd "$root"
files=("$@")
(($# > 0)) || mapfile -t files < <(git -c safe.directory="$root" ls-files '*.cpp' ':!tests' ':!bench')
((${#files[@]} > 0)) || fail 'check-tidy: no tracked sources'
clean=${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/neutils-tidy
mkdir -p "$clean"
find "$clean" -type f -mtime +30 -delete
commands=$(mktemp -d)
cleanup() { rm -rf "$commands"; }
# An option that clang does not know is an error to it.
sed 's/ -fno-gnu-unique//g' "$build/compile_commands.json" >"$commands/compile_commands.json"
tidyOptions=(--quiet -p "$commands" --extra-arg=-Wno-unknown-warning-option --extra-arg=-Wno-error)

# preprocess FILE: its text, comments and all, once for each of its commands. False if there is none.
preprocess() {
    local command result=1
    while read -r command; do
        (cd "$build" && eval "$command") || return 1
        result=0
    done < <(grep -B 1 "\"file\": \"$root/$1\"" "$commands/compile_commands.json" | sed -nE \
        's/^ *"command": "[^ ]+ (.*) -o [^ ]+ -c ([^ ]+)",$/clang++ -w \1 -E -C \2/; T; s/\\(["\\])/\1/g; p')
    return "$result"
}

# name_state FILE: a name for all that the result depends on. The place of the tree is not among it.
name_state() {
    {
        clang-tidy --version
        cat .clang-tidy
        grep -B 1 "\"file\": \"$root/$1\"" "$commands/compile_commands.json"
        preprocess "$1"
    } | sed "s|$root/||g" | sha256sum | cut -d ' ' -f 1
}

# What the compiler warns of is its own affair; what clang-tidy counts in system headers is not shown.
check_file() {
    local state output
    state=$(name_state "$1") || state=
    [[ -z $state || ! -e $clean/$state ]] || return 0
    if output=$(clang-tidy "${tidyOptions[@]}" "$1" 2>&1); then
        [[ -z $state ]] || : >"$clean/$state"
        return 0
    fi
    sed -E '/^[0-9]+ warnings? generated\.$/d' <<<"$output"
    return 1
}

# check_files FIRST: every other file from that one on.
check_files() {
    local i result=0
    for ((i = $1; i < ${#files[@]}; i += 2)); do
        check_file "${files[i]}" || result=1
    done
    return "$result"
}

check_files 0 &
other=$!
check_files 1 && mine=0 || mine=1
wait "$other" && exit "$mine"
exit 1
