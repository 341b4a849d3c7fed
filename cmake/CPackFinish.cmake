# cpack runs this script after it has made the packages. The script makes each package again, because CPack 3.25
# - has no setting for Multi-Arch,
# - keeps the builder's umask in the folders, even with CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS,
# - adds scripts that run ldconfig, although the trigger does this,
# - writes the builder's folder into the checksums of the packages with debug symbols.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${package}.content)
  file(REMOVE_RECURSE ${folder})
  run(dpkg-deb --raw-extract ${package} ${folder})
  file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)

  file(READ ${folder}/DEBIAN/control control)
  get_filename_component(name ${package} NAME)
  if(name MATCHES "^lib")
    string(REPLACE "\nVersion:" "\nMulti-Arch: same\nVersion:" control "${control}")
  elseif(NOT name MATCHES "-dbgsym_")
    string(REPLACE "\nVersion:" "\nMulti-Arch: foreign\nVersion:" control "${control}")
  endif()
  file(WRITE ${folder}/DEBIAN/control "${control}")

  # Debian's policy requires documents in every package. A link to those of the library is sufficient.
  if(name MATCHES "^(.*)-dbgsym_")
    file(MAKE_DIRECTORY ${folder}/usr/share/doc)
    file(CREATE_LINK ${CMAKE_MATCH_1} ${folder}/usr/share/doc/${CMAKE_MATCH_1}-dbgsym SYMBOLIC)
  endif()

  set(sums "")
  file(GLOB_RECURSE files RELATIVE ${folder} ${folder}/usr/*)
  foreach(file IN LISTS files)
    if(NOT IS_SYMLINK ${folder}/${file})
      file(MD5 ${folder}/${file} sum)
      string(APPEND sums "${sum}  ${file}\n")
    endif()
  endforeach()
  file(WRITE ${folder}/DEBIAN/md5sums "${sums}")

  run(chmod -R u=rwX,go=rX ${folder})
  file(GLOB_RECURSE debug_files ${folder}/usr/lib/debug/*.debug)
  if(debug_files)
    run(chmod 644 ${debug_files})
  endif()
  run(dpkg-deb --root-owner-group --build ${folder} ${package})
  file(REMOVE_RECURSE ${folder})
endforeach()
