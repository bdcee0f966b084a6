# shellcheck shell=bash disable=SC2034
# Helpers of the scripts here: source it after `set -euo pipefail`.
# A script that fails ends with the name of the step under way and where that step's log is.
# A function named cleanup, where the script has one, runs at the end in any case.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
stepName=
stepLog=

say() { printf '==> %s\n' "$*"; }

# fail REASON: ends the script with a reason that no log has to explain.
fail() {
    printf '%s\n' "$*" >&2
    stepLog=
    exit 1
}

# step NAME [LOG]: what is under way from here on, and the file, emptied, that its output goes to.
step() {
    stepName=$1
    stepLog=${2:-}
    say "$stepName"
    if [[ -n $stepLog ]]; then
        : >"$stepLog"
    fi
}

at_exit() {
    local status=$?
    trap - EXIT
    if ((status != 0)) && [[ -n $stepName ]]; then
        if [[ -s $stepLog ]]; then
            tail -n 40 "$stepLog" >&2
        fi
        printf 'Failed: %s%s\n' "$stepName" "${stepLog:+ (log: $stepLog)}" >&2
    fi
    if declare -F cleanup >/dev/null; then
        cleanup || true
    fi
    exit "$status"
}
trap at_exit EXIT

# show COMMAND...: prints a command as it would be typed.
show() {
    local word line='    $'
    for word; do
        [[ $word =~ ^[A-Za-z0-9_./=:,+-]+$ ]] || word=${word@Q}
        line+=" $word"
    done
    echo "$line"
}

# run COMMAND...: shows a command and runs it.
run() {
    show "$@"
    "$@"
}

# run_logged COMMAND...: the same with its output in the step's log.
run_logged() {
    show "$@"
    "$@" >>"$stepLog" 2>&1
}

# Fills asRoot with what must stand before a command that root shall run; false where that is not to be had.
find_root() {
    asRoot=()
    if ((EUID != 0)); then
        sudo -n true 2>/dev/null || return 1
        asRoot=(sudo -n)
    fi
}

installed() {
    dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -x installed >/dev/null
}

# need_packages PACKAGE...: installs the Debian packages that are missing, or says which and ends the script.
need_packages() {
    local package missing=()
    for package; do
        installed "$package" || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0
    if find_root; then
        say "Installing ${missing[*]}"
        if "${asRoot[@]}" apt-get update &&
            "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
        then
            return 0
        fi
    fi
    echo "apt-get install ${missing[*]}"
    exit 1
}
