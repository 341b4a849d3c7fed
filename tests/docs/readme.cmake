# The README must show the files of the minimal example exactly. Another test builds and runs them.
file(READ ${SOURCE}/README.md readme)
foreach(name IN ITEMS main.cpp CMakeLists.txt minimal.pro)
  file(READ ${SOURCE}/examples/minimal/${name} text)
  string(FIND "${readme}" "\n${text}```\n" position)
  if(position EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/minimal/${name} as it is; copy it there.")
  endif()
endforeach()
