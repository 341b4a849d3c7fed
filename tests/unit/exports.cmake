# cmake -DLIBRARY=file -DSONAME=libSsdp.so.2 -DCLASSES=... [-DNEEDED=libLog.so.2]
#       [-DVERSION=libSsdp_Qt_6] -DNM=nm -DREADELF=readelf -P exports.cmake
#
# Checks that LIBRARY has the soname SONAME, is linked to NEEDED, and exports only the classes in CLASSES. With
# VERSION, every exported symbol must have this version. Without it, no symbol may have a version.
# tests/package/symbols checks that no member is lost.

cmake_minimum_required(VERSION 3.20)

function(output_of variable)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  string(STRIP "${output}" output)
  string(REPLACE "\n" ";" lines "${output}")
  set(${variable} "${lines}" PARENT_SCOPE)
endfunction()

output_of(dynamic "${READELF}" -d "${LIBRARY}")
if(NOT dynamic MATCHES "Library soname: .${SONAME}.;")
  message(SEND_ERROR "The soname of ${LIBRARY} is not ${SONAME}, so hosts would not find it. Only an"
    " incompatible interface gets another soname: see SOVERSION in its CMakeLists.txt.")
endif()
if(NEEDED AND NOT dynamic MATCHES "Shared library: .${NEEDED}.;")
  message(SEND_ERROR "${LIBRARY} is not linked to the soname ${NEEDED}, so another library with this soname"
    " cannot replace it.")
endif()

output_of(symbols "${NM}" --dynamic --demangle --defined-only "${LIBRARY}")
list(TRANSFORM symbols REPLACE "^[0-9a-f]+ . " "")
set(version "")
if(VERSION)
  set(version "@@${VERSION}")
  # This symbol defines the version.
  list(FILTER symbols EXCLUDE REGEX "^${VERSION}(${version})?$")
endif()

string(REPLACE ";" "|" classes "${CLASSES}")
foreach(symbol IN LISTS symbols)
  if(NOT symbol MATCHES "^((vtable|typeinfo|typeinfo name) for |(non-)?virtual thunk to )?(${classes})(::|@|$)")
    message(SEND_ERROR "${LIBRARY} exports '${symbol}', which belongs to no public class. Remove Q_DECL_EXPORT"
      " from its class, or document the class and add it to CLASSES in tests/unit/CMakeLists.txt.")
  endif()
  if(NOT symbol MATCHES "^[^@]*${version}$")
    message(SEND_ERROR "${LIBRARY} exports '${symbol}', whose version should be '${version}': see exports.map.in"
      " in the folder of the library.")
  endif()
endforeach()
