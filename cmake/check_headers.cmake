# Fails when a header below INCLUDE is not LISTED as a family's public header: it would neither be
# installed nor compiled on its own.
cmake_minimum_required(VERSION 3.25)

file(GLOB_RECURSE found "${INCLUDE}/*.h")
list(REMOVE_ITEM found ${LISTED})
if(found)
  list(JOIN found "\n  " found)
  message(FATAL_ERROR "In no PUBLIC_HEADERS of a family:\n  ${found}")
endif()
