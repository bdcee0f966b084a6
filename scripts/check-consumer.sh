#!/usr/bin/env bash
# Installs a build, and uses the install as an administrator and as an embedding program would.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

build=$(realpath "${1:?Usage: scripts/check-consumer.sh BUILD_DIR}")
scratch=$(realpath "$(mktemp -d)")
prefix=$scratch/root
log=$build/check-consumer.log

cleanup() { rm -rf "$scratch"; }

install_build() { run_logged cmake --install "$build" --prefix "$prefix"; }

# The library that a program is bound to must be the installed one, not that of the build directory.
bound_to_install() { [[ $(ldd "$1") == *"libneutils.so.1 => $prefix/"* ]] || fail "$1: not bound to the install"; }

check_program() {
    bound_to_install "$1"
    "$1" "$scratch/consumer.log" "$scratch/build/"
}

# A unique symbol keeps a library in memory after it is closed.
no_unique_symbols() { [[ $(readelf -sW --dyn-syms "$1") != *' UNIQUE '* ]] || fail "$1: has unique symbols"; }

# The tracer's library is one of its own: nobody else shall need what it needs.
check_tracer() {
    bound_to_install "$1"
    [[ $(ldd "$1") == *"libneutils_trace.so.1 => $prefix/"* ]] || fail "$1: not bound to the install"
    "$1"
}

unset LD_LIBRARY_PATH CMAKE_PREFIX_PATH

step 'a first install' "$log"
install_build
for path in bin/sentrel-agent conf/agent.conf conf/policies/process_watch.policy log include/neutils/byte_buffer.h; do
    [[ -e $prefix/$path ]] || fail "$path: not installed"
done

step 'the installed agent'
"$prefix/bin/sentrel-agent" --version
"$prefix/bin/sentrel-agent" --root "$prefix" --check-config
bound_to_install "$(realpath "$prefix/bin/sentrel-agent")"

for feature in process_watch file_integrity file_access network_watch; do
    bound_to_install "$prefix/lib/features/lib$feature.so"
    no_unique_symbols "$prefix/lib/features/lib$feature.so"
done

[[ $(ldd "$prefix/lib/features/libprocess_watch.so") == *"libneutils_trace.so.1 => $prefix/"* ]] ||
    fail 'process_watch: its tracer is not that of the install'

step 'a second install keeps an edited configuration and policy' "$log"
for path in conf/agent.conf conf/policies/process_watch.policy; do
    echo 'LOG_COPIES=7' >"$prefix/$path"
    install_build
    [[ $(<"$prefix/$path") == LOG_COPIES=7 ]] || fail "$path was overwritten"
done

step 'a program that finds the library with CMake' "$log"
run_logged cmake -G Ninja -S "$root/tests/consumer" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix"
run_logged cmake --build "$scratch/build"
chmod go-w "$scratch/build" "$scratch/build/libhello.so"  # or the feature is refused
check_program "$scratch/build/consumer"
check_tracer "$scratch/build/tracer"
[[ $(ldd "$scratch/build/consumer") != *libbpf* ]] || fail 'the library needs libbpf'

step 'programs that find the library with pkg-config, the example of the README among them' "$log"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name neutils.pc)")
read -ra flags < <(pkg-config --cflags --libs neutils)
flags+=(-std=c++17 -Wall -Wextra -Werror -Wl,-rpath,"$(realpath "$(pkg-config --variable=libdir neutils)")")
awk '/^```cpp$/ { on = 1; next } /^```$/ && on { exit } on' "$root/README.md" >"$scratch/readme.cpp"
run_logged g++ -o "$scratch/readme" "$scratch/readme.cpp" "${flags[@]}"
for compiler in g++ clang++; do
    if ! command -v "$compiler" >/dev/null; then
        echo "    without $compiler, which is not installed"
        continue
    fi
    rm "$scratch/build/libhello.so" "$scratch/consumer.log"*
    variable=feature_cflags
    [[ $compiler == clang++ ]] || variable+=_gcc
    read -ra featureFlags < <(pkg-config --variable="$variable" neutils)
    run_logged "$compiler" -shared -o "$scratch/build/libhello.so" "$root/tests/consumer/hello.cpp" \
        "${featureFlags[@]}" "${flags[@]}"
    chmod go-w "$scratch/build/libhello.so"
    no_unique_symbols "$scratch/build/libhello.so"
    run_logged "$compiler" -DDEBUG -o "$scratch/consumer" "$root/tests/consumer/main.cpp" \
        -I"$root/tests/consumer/own" "${flags[@]}"
    check_program "$scratch/consumer"
done
read -ra flags < <(pkg-config --cflags --libs neutils-trace)
run_logged g++ -std=c++17 -Wall -Wextra -Werror -o "$scratch/tracer" "$root/tests/consumer/tracer.cpp" "${flags[@]}" \
    -Wl,-rpath,"$(realpath "$(pkg-config --variable=libdir neutils)")"
check_tracer "$scratch/tracer"
