# Fails on an include against the arrows of cmake/rooms.cmake, and names it: cmake -DSRC=src -P tests/includes.cmake
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/../cmake/rooms.cmake)

# Includes against the arrows that are still there: "file -> header".
set(exceptions
  "dense/numroutines.cpp -> control/tvxroutines.h"
  "sparse/linkedlist.cpp -> control/tvxroutines.h"
  "sparse/linkmerge.cpp -> control/limits.h"
  "sparse/linkmerge.cpp -> control/options.h"
  "sparse/linkmerge.cpp -> control/tvxroutines.h"
  "sparse/orderings.cpp -> control/numbers.h"
  "sparse/orderings.cpp -> control/options.h"
  "sparse/orderings.cpp -> control/tvxroutines.h"
  "sparse/orderings.cpp -> equations/orders.h"
)

set(against 0)
foreach(room ${TVX_ROOMS})
  tvx_reach(${room} reach)
  file(GLOB files ${SRC}/${room}/*.h ${SRC}/${room}/*.cpp)
  if(NOT files)
    message(SEND_ERROR "room ${room} is empty")
  endif()
  foreach(file ${files})
    file(STRINGS ${file} lines REGEX "^#include \"[a-z_]+/")
    foreach(line ${lines})
      string(REGEX REPLACE "^#include \"(([a-z_]+)/[^\"]*)\".*" "\\1;\\2" parts "${line}")
      list(GET parts 0 header)
      list(GET parts 1 from)
      if(NOT from IN_LIST reach)
        get_filename_component(name ${file} NAME)
        set(pair "${room}/${name} -> ${header}")
        if(NOT pair IN_LIST exceptions)
          message(SEND_ERROR "include against the arrows: ${pair}")
        endif()
        math(EXPR against "${against} + 1")
      endif()
    endforeach()
  endforeach()
endforeach()
file(GLOB rooms LIST_DIRECTORIES true RELATIVE ${SRC} ${SRC}/*)
foreach(room ${rooms})
  if(NOT room IN_LIST TVX_ROOMS AND NOT room STREQUAL "tvx")
    message(SEND_ERROR "room ${room} has no arrows")
  endif()
endforeach()
message(STATUS "${against} includes against the arrows")
