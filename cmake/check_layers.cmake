# Fails when a source or header of a family includes a header of a family that is not below it.
#
# LAYERS: a file that sets `families` and for each <family> its _folder, its public _headers (below
# include/) and the families _below it, itself included. ROOT: the project.
cmake_minimum_required(VERSION 3.25)

include("${LAYERS}")

# Which family a header belongs to: variable owner_<its path as included>.
foreach(family IN LISTS families)
  file(RELATIVE_PATH folder "${ROOT}/src" "${${family}_folder}")
  file(GLOB sources RELATIVE "${ROOT}/src" "${${family}_folder}/*.h" "${${family}_folder}/*.cpp")
  foreach(header IN LISTS sources ${family}_headers)
    set("owner_${header}" "${family}")
  endforeach()
  list(TRANSFORM sources PREPEND "${ROOT}/src/")
  set("${family}_files" ${sources})
  foreach(header IN LISTS ${family}_headers)
    list(APPEND "${family}_files" "${ROOT}/include/${header}")
  endforeach()
endforeach()

set(wrong "")
foreach(family IN LISTS families)
  foreach(file IN LISTS ${family}_files)
    file(STRINGS "${file}" lines REGEX "^#include [<\"]")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^#include [<\"]([^>\"]*)[>\"].*" "\\1" header "${line}")
      set(owner "${owner_${header}}")
      if(owner AND NOT owner IN_LIST ${family}_below)
        string(APPEND wrong "\n  ${file} (${family}) includes ${header} (${owner})")
      endif()
    endforeach()
  endforeach()
endforeach()
if(wrong)
  message(FATAL_ERROR "Not below in DEPENDS:${wrong}")
endif()
