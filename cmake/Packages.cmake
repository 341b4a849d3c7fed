# The Debian packages. These commands make those for Qt 6. For Qt 5, use the preset "package-qt5".
#   cmake --preset package && cmake --build --preset package
#   cpack -G DEB --config build/package/CPackConfig.cmake -B build/package
#
# Their names contain the version of Qt. Packages for Qt 5 and for Qt 6 have the same files, so they cannot be
# installed together.
#
# liblog2-qt6 is a separate package, because another package with a libLog.so.2 can replace it. That package has
# "Provides: liblog2-qt6", "Conflicts: liblog2-qt6" and "Replaces: liblog2-qt6". So the dependencies on liblog2-qt6
# have no version.

if(NOT VELMORA_SSDP_INSTALL OR NOT VELMORA_SSDP_TOP_LEVEL OR QT_VERSION_MAJOR LESS 5)
  return()
endif()

set(flavour qt${QT_VERSION_MAJOR})
set(other_flavours qt5 qt6)
list(REMOVE_ITEM other_flavours ${flavour})
set(debian ${PROJECT_SOURCE_DIR}/cmake/debian)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "the libSsdp developers")
set(CPACK_PACKAGE_CONTACT "the libSsdp developers <libssdp@example.org>")
# It is empty, so the description of each package begins with the first line of its component.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL log ssdp dev)
if(VELMORA_SSDP_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)

file(STRINGS ${debian}/changelog revision LIMIT_COUNT 1)
string(REGEX REPLACE ".*-([0-9]+)\\).*" "\\1" CPACK_DEBIAN_PACKAGE_RELEASE "${revision}")
set(package_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# CPackFinish.cmake compresses the packages.
set(CPACK_DEBIAN_COMPRESSION_TYPE none)
set(CPACK_DEBIAN_PACKAGE_SOURCE libssdp)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps must find these libraries. The dependencies between the packages are given below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/log ${PROJECT_BINARY_DIR}/ssdp)
# CPack makes a -dbgsym package for each package with programs or libraries, and strips those.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)

set(CPACK_DEBIAN_LOG_PACKAGE_NAME liblog2-${flavour})
set(CPACK_DEBIAN_LOG_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LOG_DESCRIPTION "log lines of libssdp2-${flavour}
The logging library of libssdp2-${flavour}. It passes every line to Qt's logging.
Another package that provides liblog2-${flavour} can replace it.")

set(CPACK_DEBIAN_SSDP_PACKAGE_NAME libssdp2-${flavour})
set(CPACK_DEBIAN_SSDP_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SSDP_PACKAGE_DEPENDS liblog2-${flavour})
set(CPACK_COMPONENT_SSDP_DESCRIPTION "finds the maker's devices on the local network (Qt ${QT_VERSION_MAJOR})
A UPnP control point for Qt applications. It searches the local IPv4 network,
reads the descriptions of the devices and subscribes to their events. It
reports the codes and the address of each device.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libssdp-dev-${flavour})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_DEBUGINFO_PACKAGE OFF)
if(QT_VERSION_MAJOR EQUAL 5)
  set(qt_dev qtbase5-dev)
else()
  set(qt_dev qt${QT_VERSION_MAJOR}-base-dev)
endif()
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libssdp2-${flavour} (= ${package_version}), liblog2-${flavour}, ${qt_dev}")
set(CPACK_COMPONENT_DEV_DESCRIPTION "development files of libssdp2-${flavour}
The headers of libssdp2-${flavour} and liblog2-${flavour}, their files for CMake
and pkg-config, and two examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ssdp-tools-${flavour})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libssdp2-${flavour} (>= ${PROJECT_VERSION}), iproute2")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "command-line tools of libssdp2-${flavour}
ssdp-discover lists the maker's devices on the local network. ssdp-doctor says
why a device is not found. ssdp-simulator simulates devices, and ssdp-lab runs
them in a private network.")

# This trigger makes dpkg update the loader's cache. No scripts are needed.
file(CONFIGURE OUTPUT package/triggers CONTENT "activate-noawait ldconfig\n")
file(CONFIGURE OUTPUT package/log/shlibs CONTENT "libLog ${PROJECT_VERSION_MAJOR} liblog2-${flavour}\n")
file(CONFIGURE OUTPUT package/ssdp/shlibs
  CONTENT "libSsdp ${PROJECT_VERSION_MAJOR} libssdp2-${flavour} (>= ${PROJECT_VERSION})\n")
configure_file(${debian}/liblog2.symbols.in package/log/symbols.template @ONLY)
configure_file(${debian}/libssdp2.symbols.in package/ssdp/symbols.template @ONLY)
foreach(component IN ITEMS log ssdp)
  string(TOUPPER ${component} upper)
  set(files ${PROJECT_BINARY_DIR}/package)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
    ${files}/triggers ${files}/${component}/shlibs ${files}/${component}/symbols)
endforeach()
configure_file(cmake/CPackProject.cmake.in CPackProject.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackProject.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/CPackFinish.cmake)

find_program(GZIP gzip REQUIRED)
foreach(pair IN ITEMS CHANGELOG.md:changelog.gz cmake/debian/changelog:changelog.Debian.gz)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 from)
  list(GET pair 1 to)
  execute_process(COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/${from}
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/package/${to}
    COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${from})
endforeach()
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})

  string(REPLACE ${flavour} "" stem ${package})
  list(TRANSFORM other_flavours PREPEND ${stem} OUTPUT_VARIABLE others)
  list(JOIN others ", " others)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONFLICTS "${others}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_REPLACES "${others}")

  # `cmake --install` without a component does not install these two.
  install(
    FILES ${PROJECT_BINARY_DIR}/package/changelog.gz ${PROJECT_BINARY_DIR}/package/changelog.Debian.gz
      ${debian}/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component}
    EXCLUDE_FROM_ALL)
  set(further_overrides "")
  if(component MATCHES "^(log|ssdp)$")
    string(CONCAT further_overrides
      "# The name contains the version of Qt. The libraries for Qt 5 and Qt 6 have the same soname.\n"
      "${package}: package-name-doesnt-match-sonames *\n")
  elseif(package STREQUAL "libssdp-dev-qt5")
    string(CONCAT further_overrides
      "# The headers of Qt 5 require -fPIC, but its pkg-config files do not give this option.\n"
      "${package}: pkg-config-bad-directive -fPIC *\n")
  endif()
  configure_file(${debian}/lintian-overrides.in package/${component}/lintian-overrides @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/package/${component}/lintian-overrides
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
    RENAME ${package}
    COMPONENT ${component}
    EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
