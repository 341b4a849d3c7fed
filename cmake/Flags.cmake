# The compiler options of every target of the project. The targets of a host do not get them.

function(velmora_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(VELMORA_SSDP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  target_compile_definitions(${target} PRIVATE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_CAST_FROM_BYTEARRAY
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_KEYWORDS
    QT_NO_FOREACH
    QT_STRICT_ITERATORS
    QT_DEPRECATED_WARNINGS)
  if(VELMORA_SSDP_HIDE_FOLDERS)
    target_compile_options(${target} PRIVATE
      -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
      -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
  endif()
  # With AUTOMOC_PATH_PREFIX and BUILD_RPATH_USE_ORIGIN, the built files do not depend on the path of the build
  # folder. CXX_EXTENSIONS stays on, because the headers of Qt 4.8 are not strict C++.
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 17
    CXX_STANDARD_REQUIRED ON
    AUTOMOC ON
    AUTOMOC_PATH_PREFIX ON
    BUILD_RPATH_USE_ORIGIN ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# velmora_limit_exports(target): exports only the symbols in exports.map.in.
function(velmora_limit_exports target)
  set(map ${CMAKE_CURRENT_BINARY_DIR}/exports.map)
  configure_file(exports.map.in ${map} @ONLY)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()
