# cmake -DLIBRARY=file -DSONAME=libSsdp.so.2 -DCLASSES=... [-DNEEDED=libLog.so.2]
#       [-DVERSION=libSsdp_Qt_6] -DNM=nm -DREADELF=readelf -P exports.cmake
#
# A library has its name, needs the one that hosts can replace, and offers no class but the public ones.
# With VERSION all that it offers has this symbol version, without none.
# That none of their members is lost is for tests/package/symbols.

cmake_minimum_required(VERSION 3.20)

function(output_of variable)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  string(STRIP "${output}" output)
  string(REPLACE "\n" ";" lines "${output}")
  set(${variable} "${lines}" PARENT_SCOPE)
endfunction()

output_of(dynamic "${READELF}" -d "${LIBRARY}")
if(NOT dynamic MATCHES "Library soname: .${SONAME}.;")
  message(SEND_ERROR "${LIBRARY} does not call itself ${SONAME}, so hosts would not find it. Only an"
    " incompatible interface gets another name: see SOVERSION in its CMakeLists.txt.")
endif()
if(NEEDED AND NOT dynamic MATCHES "Shared library: .${NEEDED}.;")
  message(SEND_ERROR "${LIBRARY} is not linked to ${NEEDED} by that name, so another build of it cannot take"
    " its place.")
endif()

output_of(symbols "${NM}" --dynamic --demangle --defined-only "${LIBRARY}")
list(TRANSFORM symbols REPLACE "^[0-9a-f]+ . " "")
set(version "")
if(VERSION)
  set(version "@@${VERSION}")
  # The definition of the version.
  list(FILTER symbols EXCLUDE REGEX "^${VERSION}(${version})?$")
endif()

string(REPLACE ";" "|" classes "${CLASSES}")
foreach(symbol IN LISTS symbols)
  if(NOT symbol MATCHES "^((vtable|typeinfo|typeinfo name) for |(non-)?virtual thunk to )?(${classes})(::|@|$)")
    message(SEND_ERROR "${LIBRARY} offers '${symbol}', which belongs to no public class. Take Q_DECL_EXPORT off"
      " its class, or give the class its documentation and add it to CLASSES in tests/unit/CMakeLists.txt.")
  endif()
  if(NOT symbol MATCHES "^[^@]*${version}$")
    message(SEND_ERROR "${LIBRARY} offers '${symbol}', and its version should be '${version}': see exports.map.in"
      " in the folder of the library.")
  endif()
endforeach()
