# Warnings, hardening and sanitizers, shared by everything that is compiled here.
add_library(neutils_flags INTERFACE)

# 32-bit targets: files above 2 GiB and times after 2038.
target_compile_definitions(neutils_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

target_compile_options(neutils_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef
  -Wcast-align -Wimplicit-fallthrough -fstack-protector-strong
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  $<$<BOOL:${NEUTILS_WERROR}>:-Werror>)
target_link_options(neutils_flags INTERFACE -Wl,-z,relro,-z,now)

if(NEUTILS_SANITIZE STREQUAL "address")
  target_compile_options(neutils_flags INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(neutils_flags INTERFACE -fsanitize=address,undefined)
elseif(NEUTILS_SANITIZE STREQUAL "thread")
  target_compile_options(neutils_flags INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(neutils_flags INTERFACE -fsanitize=thread)
elseif(NEUTILS_SANITIZE)
  message(FATAL_ERROR "NEUTILS_SANITIZE is empty, address or thread, not '${NEUTILS_SANITIZE}'")
else()
  target_compile_options(neutils_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
