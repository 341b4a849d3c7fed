# Chooses the version of Qt: QT_VERSION_MAJOR (6, 5 or 4), or the newest installed one.
# velmora_link_qt(target PUBLIC Core Network) links its modules; it is the same for every version.

if(NOT QT_VERSION_MAJOR)
  find_package(QT NAMES Qt6 Qt5 QUIET COMPONENTS Core)
  if(NOT QT_VERSION_MAJOR)
    set(QT_VERSION_MAJOR 4)
  endif()
endif()

if(QT_VERSION_MAJOR EQUAL 4)
  find_package(Qt4 4.8 REQUIRED QtCore QtNetwork QtXml)
  set(VELMORA_QT_VERSION ${QTVERSION})
else()
  find_package(Qt${QT_VERSION_MAJOR} REQUIRED COMPONENTS Core Network Xml)
  set(VELMORA_QT_VERSION ${Qt${QT_VERSION_MAJOR}_VERSION})
endif()

function(velmora_link_qt target scope)
  foreach(module IN LISTS ARGN)
    if(QT_VERSION_MAJOR EQUAL 4)
      target_link_libraries(${target} ${scope} Qt4::Qt${module})
    else()
      target_link_libraries(${target} ${scope} Qt${QT_VERSION_MAJOR}::${module})
    endif()
  endforeach()
endfunction()
