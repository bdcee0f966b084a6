#!/usr/bin/env bash
# Builds and tests everything, with the sanitizers and without.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/test.sh [--quick]
Runs the test suite three times: with AddressSanitizer and UndefinedBehaviorSanitizer, with
ThreadSanitizer, and plainly, together with the checks of layers, format and code. Installs the
Debian packages it needs where it may. Stops at the first failure.

  --quick  only the plain run
  --help   print this and exit
END
}

# elapsed_step NAME [LOG]: a step that tells the time since the start.
elapsed_step() { step "[$SECONDS s] $1" "${2:-}"; }

# test_preset PRESET [COMMAND...]: COMMAND stands before what runs test programs.
test_preset() {
    local preset=$1
    shift
    elapsed_step "$preset: configuring" "build/$preset.configure.log"
    run_logged cmake --preset "$preset" -DNEUTILS_BUILD_TESTS=ON
    elapsed_step "$preset: building" "build/$preset.build.log"
    run_logged "$@" cmake --build --preset "$preset"
    elapsed_step "$preset: testing"
    run "$@" ctest --preset "$preset" --no-label-summary
}

case ${1:-} in
--help) usage && exit ;;
--quick | '') ;;
*) usage >&2 && exit 2 ;;
esac

need_packages g++ clang-format clang-tidy cmake ninja-build libgtest-dev libevent-dev libssl-dev nlohmann-json3-dev \
    pkg-config gzip procps git libbpf-dev bpftool clang llvm ccache
cd "$root"
mkdir -p build

# What was compiled before from the same text with the same options is not compiled again, wherever the tree is.
export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1
export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime

export ASAN_OPTIONS=halt_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1

if [[ ${1:-} != --quick ]]; then
    # The sanitizers of this compiler cannot place their memory where a kernel randomises addresses widely.
    fixedAddresses=()
    if setarch -R true 2>/dev/null; then
        fixedAddresses=(setarch -R)
    fi
    test_preset asan "${fixedAddresses[@]}"
    test_preset tsan "${fixedAddresses[@]}"
fi
test_preset dev
