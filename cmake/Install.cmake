# The install rules that belong to no single target.
#
# Each component becomes a package (cmake/Packages.cmake): log and ssdp are the two libraries; dev has the files
# for building hosts; tools has the programs with their manual pages and completions.

include(CMakePackageConfigHelpers)

# With a prefix other than /usr, the loader must find the libraries relative to the files that need them.
if(VELMORA_SSDP_INSTALL AND NOT DEFINED CMAKE_INSTALL_RPATH AND NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(RELATIVE_PATH libraries_from_programs ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/${libraries_from_programs}")
endif()

# The loader does not search the folder of a Qt that is not installed in the system.
if(NOT DEFINED CMAKE_INSTALL_RPATH_USE_LINK_PATH)
  set(CMAKE_INSTALL_RPATH_USE_LINK_PATH ON)
endif()

# velmora_install_library(target COMPONENT component HEADERS file... INCLUDE folder)
function(velmora_install_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "COMPONENT;INCLUDE" "HEADERS")
  if(NOT VELMORA_SSDP_INSTALL)
    return()
  endif()
  install(TARGETS ${target} EXPORT VelmoraSsdpTargets
    LIBRARY
      DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT ${arg_COMPONENT}
      NAMELINK_COMPONENT dev)
  install(FILES ${arg_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${arg_INCLUDE}
    COMPONENT dev)
endfunction()

if(NOT VELMORA_SSDP_INSTALL)
  return()
endif()

set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/VelmoraSsdp)
string(REGEX MATCH "^[0-9]+\\.[0-9]+" VELMORA_QT_MINIMUM "${VELMORA_QT_VERSION}")
configure_package_config_file(cmake/VelmoraSsdpConfig.cmake.in VelmoraSsdpConfig.cmake
  INSTALL_DESTINATION ${config_folder}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(VelmoraSsdpConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/VelmoraSsdpConfig.cmake ${PROJECT_BINARY_DIR}/VelmoraSsdpConfigVersion.cmake
  DESTINATION ${config_folder}
  COMPONENT dev)
configure_file(cmake/QtVersion.h.in installed/QtVersion.h @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/installed/QtVersion.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ssdp
  COMPONENT dev)
install(EXPORT VelmoraSsdpTargets
  NAMESPACE Velmora::
  DESTINATION ${config_folder}
  COMPONENT dev)

if(QT_VERSION_MAJOR EQUAL 4)
  set(pkgconfig_requires "QtCore >= ${VELMORA_QT_MINIMUM}, QtNetwork >= ${VELMORA_QT_MINIMUM}")
else()
  string(CONCAT pkgconfig_requires
    "Qt${QT_VERSION_MAJOR}Core >= ${VELMORA_QT_MINIMUM}, Qt${QT_VERSION_MAJOR}Network >= ${VELMORA_QT_MINIMUM}")
endif()
# The headers of Qt 5 require -fPIC, but its pkg-config files do not give this option.
if(QT_VERSION_MAJOR EQUAL 5)
  set(pkgconfig_cflags "-fPIC ")
endif()
set(pkgconfig_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# If all folders are relative to the prefix, the installed files can be moved. If the folder of the libraries is
# absolute, the prefix is absolute, too.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  string(REPLACE " " "\\ " pkgconfig_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH prefix_from_pkgconfig
    ${CMAKE_INSTALL_PREFIX}/${pkgconfig_folder} ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
  set(pkgconfig_prefix "\${pcfiledir}/${prefix_from_pkgconfig}")
endif()
foreach(name IN ITEMS LIBDIR INCLUDEDIR)
  set(pkgconfig_${name} "\${prefix}/${CMAKE_INSTALL_${name}}")
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${name}})
    string(REPLACE " " "\\ " pkgconfig_${name} "${CMAKE_INSTALL_${name}}")
  endif()
endforeach()
configure_file(cmake/velmora-ssdp.pc.in velmora-ssdp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velmora-ssdp.pc DESTINATION ${pkgconfig_folder} COMPONENT dev)

install(DIRECTORY examples/minimal examples/device-browser
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libssdp-dev-qt${QT_VERSION_MAJOR}/examples
  COMPONENT dev)

if(VELMORA_SSDP_BUILD_TOOLS)
  find_program(GZIP gzip REQUIRED)
  foreach(tool IN ITEMS ssdp-discover ssdp-doctor ssdp-lab ssdp-simulator)
    set(page ${PROJECT_SOURCE_DIR}/docs/man/${tool}.1)
    execute_process(COMMAND ${GZIP} -9nc ${page}
      OUTPUT_FILE ${PROJECT_BINARY_DIR}/${tool}.1.gz
      COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page})
    install(FILES ${PROJECT_BINARY_DIR}/${tool}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endforeach()
endif()
