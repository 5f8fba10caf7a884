# The few kinds of targets that this project consists of.
#
# tarns_family(<name> ...)   one folder of src/, a part of libtarns.so
# tarns_command(...)         the command `tarns`
# tarns_test(<name> ...)     one test program
# tarns_program(<name> ...)  a program that tests start, an example, a benchmark

# `result`: the families and everything below them, each once. Families may need each other.
function(_tarns_families_below result)
  set(open ${ARGN})
  set(all "")
  while(open)
    list(POP_FRONT open family)
    get_property(known GLOBAL PROPERTY TARNS_FAMILIES)
    if(NOT family IN_LIST known)
      message(FATAL_ERROR "There is no family \"${family}\"; there are: ${known}")
    endif()
    if(NOT family IN_LIST all)
      list(APPEND all "${family}")
      get_property(depends GLOBAL PROPERTY "TARNS_FAMILY_${family}_DEPENDS")
      list(APPEND open ${depends})
    endif()
  endwhile()
  set("${result}" "${all}" PARENT_SCOPE)
endfunction()

# Links the object files of families and of everything below them into `target`.
function(_tarns_link_families target)
  _tarns_families_below(families ${ARGN})
  foreach(family IN LISTS families)
    if(TARGET "family_${family}")
      target_link_libraries("${target}" PRIVATE "family_${family}")
    endif()
  endforeach()
endfunction()

# One folder of sources.
#   SOURCES         relative to the folder; while the list is empty there is no target
#   PUBLIC_HEADERS  relative to include/; these are installed
#   DEPENDS         families whose headers it includes
#   LIBRARIES       system libraries, as CMake targets
#   APART           not a part of libtarns.so
function(tarns_family name)
  cmake_parse_arguments(arg "APART" "" "SOURCES;PUBLIC_HEADERS;DEPENDS;LIBRARIES" ${ARGN})
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tarns_family(${name}): unknown: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  # Kept in global properties, so that the order of the folders does not matter.
  set_property(GLOBAL APPEND PROPERTY TARNS_FAMILIES "${name}")
  set_property(GLOBAL PROPERTY "TARNS_FAMILY_${name}_DEPENDS" "${arg_DEPENDS}")
  set_property(GLOBAL PROPERTY "TARNS_FAMILY_${name}_FOLDER" "${CMAKE_CURRENT_SOURCE_DIR}")
  set_property(GLOBAL PROPERTY "TARNS_FAMILY_${name}_HEADERS" "${arg_PUBLIC_HEADERS}")

  list(TRANSFORM arg_PUBLIC_HEADERS PREPEND "${PROJECT_SOURCE_DIR}/include/")
  if(arg_PUBLIC_HEADERS)
    target_sources(tarns PUBLIC FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}/include"
                                FILES ${arg_PUBLIC_HEADERS})
  endif()

  if(arg_SOURCES)
    add_library("family_${name}" OBJECT ${arg_SOURCES})
    target_link_libraries("family_${name}" PRIVATE tarns_build PUBLIC ${arg_LIBRARIES})
    if(NOT arg_APART)
      target_link_libraries(tarns PRIVATE "family_${name}")
    endif()
  endif()
endfunction()

# A program.
#   SOURCES    relative to the folder; while the list is empty there is no target
#   LINKS      families linked as object files, so that private headers of src/ can be used;
#              without any, the program links libtarns.so as an application does
#   LIBRARIES  further CMake targets
#   PROGRAMS   programs that this one starts; each one's path is the macro PROGRAM_<NAME>
function(tarns_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS;LIBRARIES;PROGRAMS" ${ARGN})
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tarns_program(${name}): unknown: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT arg_SOURCES)
    return()
  endif()
  add_executable("${name}" ${arg_SOURCES})
  # What several programs share stands for itself: its names would meet those of each folder.
  set(apart ${arg_SOURCES})
  list(FILTER apart INCLUDE REGEX "/support/")
  set_source_files_properties(${apart} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
  target_link_libraries("${name}" PRIVATE tarns_build ${arg_LIBRARIES})
  if(arg_LINKS)
    _tarns_link_families("${name}" ${arg_LINKS})
  else()
    target_link_libraries("${name}" PRIVATE tarns)
  endif()
  foreach(program IN LISTS arg_PROGRAMS)
    string(TOUPPER "${program}" macro)
    target_compile_definitions("${name}" PRIVATE "PROGRAM_${macro}=\"$<TARGET_FILE:${program}>\"")
    add_dependencies("${name}" "${program}")
  endforeach()
  _tarns_note_test_sources(${arg_SOURCES})
endfunction()

# One test program, tests_<name>, of GoogleTest cases. Takes what tarns_program() takes, and
#   TIMEOUT  seconds that one case may take, 120 when not given
#   THREADS  patterns of cases that use several threads, as in --gtest_filter. Besides the label
#            <name> they have the label "threads": what is worth running under the thread sanitizer
function(tarns_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LINKS;LIBRARIES;PROGRAMS;THREADS" ${ARGN})
  if(NOT arg_SOURCES)
    return()
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  tarns_program(
    "tests_${name}" ${arg_UNPARSED_ARGUMENTS}
    SOURCES ${arg_SOURCES}
    LINKS ${arg_LINKS}
    PROGRAMS ${arg_PROGRAMS}
    LIBRARIES tests_support GTest::gtest_main ${arg_LIBRARIES})
  # Quick to build comes before quick to run: most cases take less than compiling them.
  target_compile_options("tests_${name}" PRIVATE $<$<CONFIG:Debug>:-O0>)
  list(JOIN arg_THREADS ":" threads)
  if(threads)
    _tarns_discover("${name}" "${threads}" ${arg_TIMEOUT} TEST_LIST "${name}_threads")
    # gtest_discover_tests() cannot set two labels.
    set(labels "${CMAKE_CURRENT_BINARY_DIR}/${name}_threads.cmake")
    file(WRITE "${labels}" "foreach(test IN LISTS ${name}_threads)\n"
                           "  set_tests_properties(\"\${test}\" PROPERTIES LABELS "
                           "\"${name};threads\")\n" "endforeach()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels}")
  endif()
  _tarns_discover("${name}" "-${threads}" ${arg_TIMEOUT})
endfunction()

# Lets ctest know of the cases that a filter selects.
function(_tarns_discover name filter timeout)
  gtest_discover_tests(
    "tests_${name}"
    TEST_FILTER "${filter}"
    TEST_PREFIX "${name}."
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    ${ARGN}
    PROPERTIES TIMEOUT ${timeout} LABELS ${name})
endfunction()

# Remembers sources under tests/; tarns_require_all_tests() compares them with what lies there.
function(_tarns_note_test_sources)
  foreach(source IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH source NORMALIZE)
    set_property(GLOBAL APPEND PROPERTY TARNS_TEST_SOURCES "${source}")
  endforeach()
endfunction()

# Fails when a source file under tests/ is in no program. tests/install is a project of its own.
function(tarns_require_all_tests)
  file(GLOB_RECURSE found CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/*.cpp")
  list(FILTER found EXCLUDE REGEX "^${PROJECT_SOURCE_DIR}/tests/install/")
  get_property(listed GLOBAL PROPERTY TARNS_TEST_SOURCES)
  list(REMOVE_ITEM found ${listed})
  if(found)
    list(JOIN found "\n  " found)
    message(FATAL_ERROR "In no test program:\n  ${found}")
  endif()
endfunction()

# The command `tarns`, target tarns_command: SOURCES (main) and the family tools over libtarns.so.
function(tarns_command)
  tarns_program(tarns_command ${ARGN})
  if(TARGET tarns_command)
    target_link_libraries(tarns_command PRIVATE family_tools)
    set_target_properties(tarns_command PROPERTIES OUTPUT_NAME tarns INSTALL_RPATH
                                                   "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
endfunction()

# A test that no family includes a header of one that does not stand below it.
function(tarns_add_layers_test)
  get_property(families GLOBAL PROPERTY TARNS_FAMILIES)
  set(text "set(families ${families})\n")
  foreach(family IN LISTS families)
    get_property(folder GLOBAL PROPERTY "TARNS_FAMILY_${family}_FOLDER")
    get_property(headers GLOBAL PROPERTY "TARNS_FAMILY_${family}_HEADERS")
    _tarns_families_below(below ${family})
    string(APPEND text "set(${family}_folder \"${folder}\")\n" "set(${family}_below ${below})\n"
                       "set(${family}_headers ${headers})\n")
  endforeach()
  set(layers "${PROJECT_BINARY_DIR}/layers.cmake")
  file(WRITE "${layers}" "${text}")
  add_test(NAME house.no_family_includes_one_above_it
           COMMAND "${CMAKE_COMMAND}" "-DLAYERS=${layers}" "-DROOT=${PROJECT_SOURCE_DIR}" -P
                   "${PROJECT_SOURCE_DIR}/cmake/check_layers.cmake")
endfunction()
