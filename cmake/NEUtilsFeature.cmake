# Comes with the installed package too.

# neutils_feature_options(TARGET): what everything that goes into a feature is compiled with.
function(neutils_feature_options target)
  # Unique symbols, which clang does not make, would keep the library in memory after it is closed, and a replaced
  # one would not come into use.
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON
                        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# neutils_add_feature(NAME SOURCES...): lib<NAME>.so, which an agent loads and closes while it runs.
function(neutils_add_feature name)
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE NEUtils::neutils)
  neutils_feature_options(${name})
  set_target_properties(${name} PROPERTIES PREFIX lib SUFFIX .so)
endfunction()
