#!/usr/bin/env bash
# Boots Debian 12's own kernel in a virtual machine and runs the tests of the tracers in it: what one kernel's
# verifier takes, another one refuses. Needs root and apt, for the kernel's package, which is not installed.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

build=$(realpath "${1:?Usage: scripts/check-kernel61.sh BUILD_DIR [FILTER]}")
filter=${2:-*ProcessTracerTest*:TraceLimitsTest.*Rights*:TraceLimitsTest.AProcess*:TraceLimitsTest.Containers*:ConnectionTracerTest.[EAOW]*}
program=$build/bin/trace_root_test
work=$build/kernel61
log=$build/check-kernel61.log
bootLimit=150

# put_program FILE [NAME]: a program with the libraries that it needs, in the place where it stands here.
put_program() {
    local library
    install -D "$1" "$work/root/${2:-$1}"
    while read -r library; do
        [[ -e $work/root$library ]] || install -D "$library" "$work/root$library"
    done < <(ldd "$1" | grep -oE '/[^ ]+')
}

fetch_kernel() {
    package=$(apt-cache depends linux-image-amd64 2>/dev/null | sed -nE 's/.*Depends: (linux-image-6\.1\..*)/\1/p' | head -n 1)
    [[ -n $package ]] || return 1
    compgen -G "$work/${package}_*.deb" >/dev/null ||
        (cd "$work" && run_logged apt-get download -q -o APT::Sandbox::User=root "$package")
}

[[ -x $program ]] || fail "$program: not built"
[[ $(uname -m) == x86_64 ]] || fail 'check-kernel61: the virtual machine is an x86-64 one'
((EUID == 0)) || fail 'check-kernel61: apt-get download needs root'
need_packages qemu-system-x86 busybox-static cpio
mkdir -p "$work"
rm -rf "$work/root"

step 'the kernel of Debian 12' "$log"
# Apt's lists may be missing, or name a package that has been replaced since.
fetch_kernel || { run_logged apt-get update && fetch_kernel; } || fail 'check-kernel61: apt has no linux-image-6.1'
run_logged dpkg -x "$work/$package"_*.deb "$work/kernel"

step 'a root directory with the tests' "$log"
mkdir -p "$work"/root/{bin,proc,sys,tmp,dev,opt}
install /bin/busybox "$work/root/bin/busybox"
strip -o "$work/trace_root_test" "$program"
put_program "$work/trace_root_test" /bin/trace_root_test
put_program /bin/dash /bin/sh
put_program /bin/bash
put_program /bin/sleep
put_program /bin/true
put_program /usr/bin/nice
cat >"$work/root/init" <<END
#!/bin/busybox sh
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t sysfs sys /sys
/bin/busybox mount -t devtmpfs dev /dev
/bin/busybox ifconfig lo up
export PATH=/bin:/usr/bin
/bin/busybox uname -r
trace_root_test --gtest_color=no --gtest_filter='$filter'
echo "Result: \$?"
/bin/busybox poweroff -f
END
chmod +x "$work/root/init"
(cd "$work/root" && find . | cpio -o -H newc 2>/dev/null | gzip -1) >"$work/root.gz"

step 'the tests in it' "$log"
# Without acceleration: where there is some, it need not work inside of another virtual machine.
timeout "$bootLimit" qemu-system-x86_64 -M q35 -cpu max -smp 2 -m 1024 -nographic -no-reboot \
    -kernel "$work"/kernel/boot/vmlinuz-* -initrd "$work/root.gz" -append 'console=ttyS0 quiet panic=-1' \
    </dev/null 2>&1 | tr -d '\r' | sed '1,/Booting from/d' | tee -a "$log"
grep -qx 'Result: 0' "$log" || fail 'check-kernel61: the tests did not pass there'
grep -qE '^\[  PASSED  \] [1-9]' "$log" || fail 'check-kernel61: no test ran'
! grep -q SKIPPED "$log" || fail 'check-kernel61: a test was skipped'
