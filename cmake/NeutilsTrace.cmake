# libneutils_trace: the tracers of processes and connections, apart from the library, so that only their users need
# libbpf. Where the trace programs cannot be built, it has the process connector alone, and no connections.
set(NEUTILS_TRACE AUTO CACHE STRING "Trace programs of the tracers: AUTO, ON or OFF")
set_property(CACHE NEUTILS_TRACE PROPERTY STRINGS AUTO ON OFF)

find_path(LIBBPF_INCLUDE_DIR bpf/bpf_core_read.h)
find_library(LIBBPF_LIBRARY bpf)
find_program(BPF_CLANG clang)
find_program(BPFTOOL bpftool PATHS /usr/sbin /sbin)
find_program(LLVM_STRIP llvm-strip)
mark_as_advanced(LIBBPF_INCLUDE_DIR LIBBPF_LIBRARY BPF_CLANG BPFTOOL LLVM_STRIP)
set(traceNeeds LIBBPF_INCLUDE_DIR:libbpf-dev LIBBPF_LIBRARY:libbpf-dev BPF_CLANG:clang BPFTOOL:bpftool LLVM_STRIP:llvm)

set(traceMissing "")
foreach(need ${traceNeeds})
  string(REPLACE ":" ";" need ${need})
  list(GET need 0 found)
  list(GET need 1 package)
  if(NOT ${found})
    list(APPEND traceMissing ${package})
  endif()
endforeach()
list(REMOVE_DUPLICATES traceMissing)
list(JOIN traceMissing " " traceMissing)

set(NEUTILS_HAS_TRACE OFF)
if(NEUTILS_TRACE STREQUAL "ON")
  neutils_need("The trace programs need" ${traceNeeds})
  set(NEUTILS_HAS_TRACE ON)
elseif(NEUTILS_TRACE STREQUAL "AUTO")
  if(CMAKE_CROSSCOMPILING)
    message(STATUS "Tracers without trace programs: cross-compiled")
  elseif(traceMissing)
    message(STATUS "Tracers without trace programs, which need: apt install ${traceMissing}")
  else()
    set(NEUTILS_HAS_TRACE ON)
  endif()
elseif(NOT NEUTILS_TRACE STREQUAL "OFF")
  message(FATAL_ERROR "NEUTILS_TRACE is AUTO, ON or OFF, not '${NEUTILS_TRACE}'")
endif()

set(tracerFiles connector_socket.cpp connector_source.cpp container_names.cpp exec_reader.cpp platform_processes.cpp
                 proc_directory.cpp process_table.cpp process_tracer.cpp trace_decoder.cpp tracer_thread.cpp)
set(networkFiles connection_decoder.cpp network_address.cpp pending_connects.cpp)
if(NEUTILS_HAS_TRACE)
  list(APPEND tracerFiles libbpf_messages.cpp ring_reader.cpp trace_ring.cpp)
  list(APPEND networkFiles connection_ring.cpp connection_tracer.cpp)
else()
  list(APPEND tracerFiles trace_ring_missing.cpp)
  list(APPEND networkFiles connection_tracer_missing.cpp)
endif()
list(TRANSFORM tracerFiles PREPEND ${PROJECT_SOURCE_DIR}/process/)
list(TRANSFORM networkFiles PREPEND ${PROJECT_SOURCE_DIR}/network/)

add_library(neutils_trace_objects OBJECT ${tracerFiles} ${networkFiles})
target_link_libraries(neutils_trace_objects PRIVATE neutils_flags Threads::Threads)
target_include_directories(neutils_trace_objects PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
# Unique symbols would keep the library in memory after a feature that uses it is closed.
target_compile_options(neutils_trace_objects PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

# neutils_trace_programs(DIRECTORY NAME HEADERS...): programs for the kernel's own machine, and the C header that holds
# them, NAME.skel.h.
function(neutils_trace_programs directory name)
  set(skeleton ${PROJECT_BINARY_DIR}/trace/${name}.skel.h)
  set(object ${PROJECT_BINARY_DIR}/trace/${name}.bpf.o)
  set(program ${PROJECT_SOURCE_DIR}/${directory}/${name}.bpf.c)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/trace)
  add_custom_command(OUTPUT ${skeleton}
    COMMAND ${BPF_CLANG} -g -O2 -target bpf -Wall -Wextra -Wno-unused-parameter -Werror -I ${PROJECT_SOURCE_DIR}
            -I ${LIBBPF_INCLUDE_DIR} -I /usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -c ${program} -o ${object}
    COMMAND ${LLVM_STRIP} -g ${object}
    COMMAND ${CMAKE_COMMAND} -E echo "// NOLINTBEGIN" > ${skeleton}
    COMMAND ${BPFTOOL} gen skeleton ${object} name ${name} >> ${skeleton}
    COMMAND ${CMAKE_COMMAND} -E echo "// NOLINTEND" >> ${skeleton}
    DEPENDS ${program} ${ARGN}
    COMMENT "Building the trace programs of ${directory}" VERBATIM)
  add_custom_target(${name}_skeleton DEPENDS ${skeleton})
  add_dependencies(neutils_trace_objects ${name}_skeleton)
endfunction()

if(NEUTILS_HAS_TRACE)
  neutils_trace_programs(process process_trace process/trace_common.bpf.h process/trace_kernel.h
                         process/trace_layout.h process/trace_state.h)
  neutils_trace_programs(network network_trace network/network_kernel.h network/network_layout.h
                         process/trace_common.bpf.h process/trace_kernel.h process/trace_state.h)
  # What bpftool writes is not held to the flags of the house.
  target_include_directories(neutils_trace_objects SYSTEM PRIVATE ${PROJECT_BINARY_DIR}/trace ${LIBBPF_INCLUDE_DIR})
  set(traceLibraries ${LIBBPF_LIBRARY})
endif()

add_library(neutils_trace SHARED $<TARGET_OBJECTS:neutils_trace_objects>
                                 ${PROJECT_SOURCE_DIR}/process/proc_event_decoder.cpp)
set_target_properties(neutils_trace PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1 EXPORT_NAME trace
                      INSTALL_RPATH "$ORIGIN")
target_include_directories(neutils_trace PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(neutils_trace PUBLIC neutils
                      PRIVATE $<BUILD_INTERFACE:neutils_flags> $<BUILD_INTERFACE:neutils_util_static> ${traceLibraries})
add_library(NEUtils::trace ALIAS neutils_trace)

# Serves tests of internals, as neutils_static does.
add_library(neutils_trace_static STATIC $<TARGET_OBJECTS:neutils_trace_objects>)
target_link_libraries(neutils_trace_static PUBLIC neutils_static ${traceLibraries})
