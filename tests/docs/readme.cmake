# The README shows the minimal example as it stands in the tree, where it is built and run.
file(READ ${SOURCE}/README.md readme)
foreach(name IN ITEMS main.cpp CMakeLists.txt minimal.pro)
  file(READ ${SOURCE}/examples/minimal/${name} text)
  string(FIND "${readme}" "\n${text}```\n" position)
  if(position EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/minimal/${name} as it is; copy it there.")
  endif()
endforeach()
