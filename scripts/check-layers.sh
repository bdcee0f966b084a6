#!/usr/bin/env bash
# Checks the include lines of a source tree, this one or --root DIR, against the layers of the house: each
# file may use its own directory and those below it, public headers included, and no files include each other
# in a circle.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# The directories that a directory may use beside itself and util/, which is open to all; a header alone by its path.
declare -A mayUse=(
    [util]=''
    [frame]=''
    [modules]='frame guard sched'
    [guard]='frame'
    [sched]='guard frame'
    [monitor]='guard frame'
    [comm]='frame sched/mr1w_lock.h'
    [process]='frame'
    [network]='frame process'
    [agent]='frame modules guard sched monitor comm process network'
    [features]='frame modules guard sched monitor comm process network'
    [tools]='frame modules guard sched monitor comm process network'
)
# The directory that each public header belongs to; one that stands nowhere here is refused.
declare -A headersOf=(
    [util]='byte_buffer neutils_api sha256'
    [frame]='config instance_lock log_system logger my_program'
    [modules]='event_file feature_counters module module_entry module_manager'
    [guard]='hips_guard hips_instance_manager hips_resource_manager hips_thread_instance'
    [sched]='mr1w_lock pool_job task task_manager thread_pool'
    [monitor]='attribute fanotify_watcher file_watch inotify_monitor inotify_watcher monitor monitor_manager myfanotify'
    [comm]='base_socket basecomm ipv4_socket ipv6_socket report report_messages report_queue socket_comm
            socket_proxy tcp_socket tlv unix_socket'
    [process]='process_monitor process_record process_tracer process_utils user_info'
    [network]='connection_record connection_tracer'
)
# These use the library as anybody does: public headers and util/ only, and their own files by bare name.
embedders=' agent features tools '
outside=' build tests bench '

declare -A directoryOf=()
for directory in "${!headersOf[@]}"; do
    for header in ${headersOf[$directory]}; do
        directoryOf[$header.h]=$directory
    done
done

# open_to USER DIRECTORY HEADER: may USER use the header, which belongs to DIRECTORY?
open_to() {
    local used
    [[ $2 == util || $2 == "$1" ]] && return 0
    for used in ${mayUse[$1]}; do
        [[ $used == "$2" || $used == "$2/$3" ]] && return 0
    done
    return 1
}

# allowed TREE FILE NAME: may FILE hold #include "NAME"?
allowed() {
    local tree=$1 file=$2 name=$3 directory=${2%%/*}
    if [[ $directory == include ]]; then
        [[ $name != */* && -v directoryOf[${file#*/}] ]] || return 1
        directory=${directoryOf[${file#*/}]}
    fi
    if [[ $name != */* ]]; then
        if [[ -e $tree/include/$name ]]; then
            [[ -v directoryOf[$name] ]] && open_to "$directory" "${directoryOf[$name]}" "$name"
            return
        fi
        [[ $embedders == *" $directory "* && -e $tree/$(dirname "$file")/$name ]]
        return
    fi
    [[ $name != *..* && $name != *./* ]] || return 1
    [[ $embedders != *" $directory "* || $name == util/* ]] && open_to "$directory" "${name%%/*}" "${name#*/}"
}

# The project's own file that a file includes by NAME, as a unit: a header and its source are one, but for a
# public header, which is an interface apart from what implements it.
unit_of() {
    local tree=$1 file=$2 name=$3
    if [[ $name == */* ]]; then
        echo "${name%.*}"
    elif [[ -v directoryOf[$name] ]]; then
        echo "include/${name%.*}"
    else
        echo "$(dirname "$file")/${name%.*}"
    fi
}

# Prints each forbidden include of a tree, each directory with code that has no layer, and each circle.
violations() {
    local tree=$1 file line name unit
    local -a uses=()
    local quoted='^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]+)"'
    local angled='^[[:space:]]*#[[:space:]]*include[[:space:]]*<([^>]+)>'
    while IFS= read -r file; do
        if [[ $outside == *" ${file%%/*} "* ]]; then
            continue
        fi
        unit=${file%.*}
        if [[ $unit != */* || ! -v mayUse[${unit%%/*}] && ! -v directoryOf[${file#include/}] ]]; then
            echo "$file: no layer"
            continue
        fi
        while IFS= read -r line; do
            if [[ $line =~ $quoted ]]; then
                name=${BASH_REMATCH[1]}
                allowed "$tree" "$file" "$name" || echo "$file: \"$name\""
                uses+=("$unit $(unit_of "$tree" "$file" "$name")")
            elif [[ $line =~ $angled ]]; then
                name=${BASH_REMATCH[1]}
                # The include path would find the project's own headers in this form too.
                [[ ! -e $tree/$name && ! -e $tree/include/$name ]] || echo "$file: <$name>"
            else
                echo "$file: ${line##*include }"
            fi
        done < <(grep -E '^[[:space:]]*#[[:space:]]*include' "$tree/$file")
    done < <(cd "$tree" && find . -mindepth 1 \( -name '.*' -prune \) -o \( -name '*.h' -o -name '*.cpp' \) -printf '%P\n' | sort)
    # tsort fails where it finds a circle, and names those in it.
    printf '%s\n' "${uses[@]}" | tsort 2>&1 >/dev/null | sed -nE 's/^tsort: ([^ -].*\/.*)/\1: in a circle/p' | sort -u || true
}

# Plants every kind of use in a tree and expects exactly the forbidden ones back.
self_check() {
    local tree=$1 file verdict use
    mkdir -p "$tree"/{include,util,frame,modules,guard,sched,monitor,comm,process,network,agent,features/a,tools,bench,extra}
    touch "$tree"/include/{byte_buffer,logger,hips_guard,mr1w_lock,task,socket_comm,strange}.h "$tree"/agent/own.h \
        "$tree"/features/a/own.h "$tree"/util/file.h
    while read -r verdict file use; do
        printf '#include %s\n' "$use" >>"$tree/$file"
        [[ $verdict == good ]] || echo "$file: $use"
    done >"$tree/expected" <<'END'
good include/hips_thread_instance.h "logger.h"
bad include/hips_thread_instance.h "socket_comm.h"
bad include/hips_thread_instance.h "util/file.h"
bad include/hips_thread_instance.h "gone.h"
good util/a.cpp "byte_buffer.h"
good util/a.cpp "util/file.h"
bad util/a.cpp "logger.h"
bad util/a.cpp "frame/a.h"
good frame/a.cpp "logger.h"
good frame/a.cpp <vector>
bad frame/a.cpp <util/file.h>
bad frame/a.cpp <logger.h>
bad frame/a.cpp "file.h"
bad frame/a.cpp "hips_guard.h"
bad frame/a.cpp "include/logger.h"
bad frame/a.cpp "../util/file.h"
bad frame/a.cpp "comm/a.h"
bad frame/a.cpp NAME
good modules/a.cpp "util/file.h"
good modules/a.cpp "guard/a.h"
bad modules/a.cpp "monitor/a.h"
good guard/a.cpp "frame/a.h"
bad guard/a.cpp "socket_comm.h"
bad guard/a.cpp "sched/a.h"
good sched/a.cpp "frame/a.h"
bad sched/a.cpp "comm/a.h"
good monitor/a.cpp "hips_guard.h"
bad monitor/a.cpp "sched/a.h"
good comm/a.cpp "mr1w_lock.h"
bad comm/a.cpp "task.h"
bad comm/a.cpp "sched/scheduler.h"
good process/a.cpp "byte_buffer.h"
bad process/a.cpp "socket_comm.h"
bad process/a.cpp "comm/socket.h"
good network/a.cpp "process/a.h"
bad network/a.cpp "socket_comm.h"
bad process/a.cpp "network/b.h"
good agent/a.cpp "own.h"
good agent/a.cpp "util/file.h"
good agent/a.cpp "socket_comm.h"
bad agent/a.cpp "frame/a.h"
good features/a/a.cpp "own.h"
bad features/a/a.cpp "agent/own.h"
bad tools/a.cpp "own.h"
good bench/a.cpp "frame/a.h"
good monitor/b.cpp "monitor/b.h"
good monitor/c.h "monitor/b.h"
good monitor/b.h "monitor/c.h"
good frame/logger.cpp "frame/c.h"
good frame/c.h "logger.h"
good comm/b.cpp "comm/c.h"
good comm/c.h "comm/b.h"
END
    printf '%s: no layer\n' extra/a.h include/strange.h >>"$tree/expected"
    printf '%s: in a circle\n' monitor/b monitor/c comm/b comm/c >>"$tree/expected"
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
