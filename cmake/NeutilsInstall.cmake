# Lays out a whole install root: bin, conf, log, libraries and headers below one prefix.
include(CMakePackageConfigHelpers)

install(TARGETS neutils neutils_trace EXPORT NEUtilsTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS sentrel-agent RUNTIME DESTINATION bin)
if(NEUTILS_BUILD_COLLECTOR)
  install(TARGETS sentrel-collector RUNTIME DESTINATION bin)
endif()
install(FILES ${publicHeaders} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/neutils)
install(DIRECTORY DESTINATION log
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)

# The agent loads nothing from a directory, and no library, that others may write.
get_property(features GLOBAL PROPERTY NEUTILS_FEATURES)
install(DIRECTORY DESTINATION lib/features
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
install(TARGETS ${features} LIBRARY DESTINATION lib/features
        PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# neutils_install_once(FILE DIRECTORY): what an administrator or a server has changed survives the next install.
function(neutils_install_once file directory)
  get_filename_component(name ${file} NAME)
  install(CODE "
    if(NOT EXISTS \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/${name}\")
      file(INSTALL \"${PROJECT_SOURCE_DIR}/${file}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${directory}\"
           PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)
    endif()")
endfunction()
neutils_install_once(agent/agent.conf conf)
foreach(feature ${features})
  neutils_install_once(agent/policies/${feature}.policy conf/policies)
endforeach()

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/NEUtils)
install(EXPORT NEUtilsTargets NAMESPACE NEUtils:: DESTINATION ${packageDir})
configure_package_config_file(cmake/NEUtilsConfig.cmake.in ${PROJECT_BINARY_DIR}/NEUtilsConfig.cmake
                              INSTALL_DESTINATION ${packageDir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/NEUtilsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/NEUtilsConfig.cmake ${PROJECT_BINARY_DIR}/NEUtilsConfigVersion.cmake
        cmake/NEUtilsFeature.cmake DESTINATION ${packageDir})

# The file finds its prefix by its own place, so an install root can be moved.
file(RELATIVE_PATH pcUpwards /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" pcUpwards "${pcUpwards}")
configure_file(cmake/neutils.pc.in ${PROJECT_BINARY_DIR}/neutils.pc @ONLY)
configure_file(cmake/neutils-trace.pc.in ${PROJECT_BINARY_DIR}/neutils-trace.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/neutils.pc ${PROJECT_BINARY_DIR}/neutils-trace.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
