# Language level, warnings and the tools around the compiler.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Where CMAKE_UNITY_BUILD is set, as in most presets: so many sources at a time, so that the headers
# they have in common, and what the compiler makes of these, come once. It takes two fifths of the time.
# Thus sources of one folder share their anonymous namespaces.
if(NOT DEFINED CMAKE_UNITY_BUILD_BATCH_SIZE)
  set(CMAKE_UNITY_BUILD_BATCH_SIZE 8)
endif()

find_package(Threads REQUIRED)

if(PROJECT_IS_TOP_LEVEL)
  find_program(TARNS_CCACHE ccache)
  if(TARNS_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${TARNS_CCACHE}")
  endif()
  # One place for all programs, so that each finds libtarns.so and each other.
  set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
  set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
endif()

# What every target of this project is compiled with; nothing of it reaches a consumer.
add_library(tarns_build INTERFACE)
target_include_directories(tarns_build INTERFACE "${PROJECT_SOURCE_DIR}/include"
                                                 "${PROJECT_SOURCE_DIR}/src")
target_link_libraries(tarns_build INTERFACE Threads::Threads)
target_compile_options(tarns_build INTERFACE -fno-omit-frame-pointer)

if(TARNS_DEVELOPER)
  set(shadow -Wshadow)
  if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(shadow -Wshadow=local)  # what another source calls so is no concern of this one's
  endif()
  target_compile_options(tarns_build INTERFACE -Wall -Wextra -Wpedantic ${shadow}
                                               -Wnon-virtual-dtor -Wundef -Werror)
  find_program(TARNS_LLD ld.lld)
  if(TARNS_LLD)
    target_link_options(tarns_build INTERFACE -fuse-ld=lld)
  endif()
endif()

if(TARNS_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TARNS_FUZZ needs clang: use the preset fuzz")
  endif()
  set(sanitizers -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  target_compile_options(tarns_build INTERFACE ${sanitizers})
  target_link_options(tarns_build INTERFACE ${sanitizers})
endif()
