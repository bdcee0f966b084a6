#!/usr/bin/env bash
# Checks the include lines of a source tree, this one or --root DIR, against the layers of the house.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# What a folder may include by path. util/ is open to all; include/ (by bare name) has no path.
declare -A mayUse=(
    [include]=''
    [util]='util/*'
    [frame]='frame/* util/*'
    [modules]='modules/* frame/* util/*'
    [guard]='guard/* frame/* util/*'
    [sched]='sched/* guard/* frame/* util/*'
    [monitor]='monitor/* guard/* frame/* util/*'
    [comm]='comm/* frame/* util/* sched/*lock*'
    [process]='process/* frame/* util/* comm/byte_buffer*'
    [agent]='' [features]='' [tools]=''
)
# They use the library as anybody does, and their own files by bare name.
embedders=' agent features tools '
outside=' build tests bench '

# allowed TREE FILE NAME: may FILE hold #include "NAME"?
allowed() {
    local tree=$1 file=$2 name=$3 folder=${2%%/*} pattern
    if [[ $name != */* ]]; then
        [[ $folder == util && $name == logger.h ]] && return 1  # util never logs
        [[ -e $tree/include/$name ]] && return 0
        [[ $embedders == *" $folder "* && -e $tree/$(dirname "$file")/$name ]]
        return
    fi
    [[ $name != *..* && $name != *./* ]] || return 1
    set -f
    for pattern in ${mayUse[$folder]}; do
        # shellcheck disable=SC2053  # a pattern
        [[ $name == $pattern ]] && return 0
    done
    return 1
}

# Prints each forbidden include of a tree, and each folder with code that has no layer.
violations() {
    local tree=$1 file line name
    local quoted='^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]+)"'
    local angled='^[[:space:]]*#[[:space:]]*include[[:space:]]*<([^>]+)>'
    while IFS= read -r file; do
        if [[ $outside == *" ${file%%/*} "* ]]; then
            continue
        fi
        if [[ $file != */* || ! -v mayUse[${file%%/*}] ]]; then
            echo "$file: no layer"
            continue
        fi
        while IFS= read -r line; do
            if [[ $line =~ $quoted ]]; then
                name=${BASH_REMATCH[1]}
                allowed "$tree" "$file" "$name" || echo "$file: \"$name\""
            elif [[ $line =~ $angled ]]; then
                name=${BASH_REMATCH[1]}
                # The include path would find the project's own headers in this form too.
                [[ ! -e $tree/$name && ! -e $tree/include/$name ]] || echo "$file: <$name>"
            else
                echo "$file: ${line##*include }"
            fi
        done < <(grep -E '^[[:space:]]*#[[:space:]]*include' "$tree/$file")
    done < <(cd "$tree" && find . -mindepth 1 \( -name '.*' -prune \) -o \( -name '*.h' -o -name '*.cpp' \) -printf '%P\n' | sort)
}

# Plants every kind of use in a tree and expects exactly the forbidden ones back.
self_check() {
    local tree=$1 file verdict use
    mkdir -p "$tree"/{include,util,frame,modules,guard,sched,monitor,comm,process,agent,features/a,tools,bench,extra}
    touch "$tree"/include/{logger,byte_buffer}.h "$tree"/agent/own.h "$tree"/features/a/own.h "$tree"/util/file.h
    while read -r verdict file use; do
        printf '#include %s\n' "$use" >>"$tree/$file"
        [[ $verdict == good ]] || echo "$file: $use"
    done >"$tree/expected" <<'END'
good include/a.h "logger.h"
bad include/a.h "util/file.h"
bad include/a.h "gone.h"
good util/a.cpp "byte_buffer.h"
good util/a.cpp "util/file.h"
bad util/a.cpp "logger.h"
bad util/a.cpp "frame/a.h"
good frame/a.cpp "logger.h"
good frame/a.cpp <vector>
bad frame/a.cpp <util/file.h>
bad frame/a.cpp <logger.h>
bad frame/a.cpp "file.h"
bad frame/a.cpp "include/logger.h"
bad frame/a.cpp "../util/file.h"
bad frame/a.cpp "comm/a.h"
bad frame/a.cpp NAME
good modules/a.cpp "util/file.h"
bad modules/a.cpp "guard/a.h"
good guard/a.cpp "frame/a.h"
bad guard/a.cpp "sched/a.h"
good sched/a.cpp "frame/a.h"
bad sched/a.cpp "comm/a.h"
good monitor/a.cpp "guard/a.h"
bad monitor/a.cpp "sched/a.h"
good comm/a.cpp "sched/rw_lock.h"
bad comm/a.cpp "sched/scheduler.h"
good process/a.cpp "comm/byte_buffer_detail.h"
bad process/a.cpp "comm/socket.h"
good agent/a.cpp "own.h"
bad agent/a.cpp "util/file.h"
good features/a/a.cpp "own.h"
bad features/a/a.cpp "agent/own.h"
bad tools/a.cpp "own.h"
good bench/a.cpp "util/file.h"
END
    echo 'extra/a.h: no layer' >>"$tree/expected"
    touch "$tree/extra/a.h"
    diff <(sort "$tree/expected") <(violations "$tree" | sort) >&2 || fail 'check-layers: it no longer finds what it should'
}

cleanup() { rm -rf "$scratch"; }

tree=$root
scratch=$(mktemp -d)
case ${1:-} in
'') ;;
--root) tree=${2:?--root DIR} ;;
*) fail 'Usage: scripts/check-layers.sh [--root DIR]' ;;
esac
compgen -G "$tree/include/*.h" >/dev/null || fail "$tree: no include/*.h there"
self_check "$scratch"
found=$(violations "$tree")
if [[ -n $found ]]; then
    fail "$found"
fi
