# 32-bit ARM with Debian's cross compiler; programs run under qemu-arm (packages
# g++-arm-linux-gnueabihf and qemu-user). OpenSSL comes from libssl-dev of that architecture
# (dpkg --add-architecture armhf), or from another tree that CMAKE_PREFIX_PATH names.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # nothing here meets what a g++ before 7 has compiled
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
