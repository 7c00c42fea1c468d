# The public headers of Tarn. Used by TarnInstall.cmake, and on its own
#   cmake -P cmake/TarnPublicHeaders.cmake
# prints them one a line, relative to the source tree (for Doxygen).
if(CMAKE_SCRIPT_MODE_FILE)
  cmake_minimum_required(VERSION 3.25)
endif()
get_filename_component(_TARN_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)

# The headers an application sees are include/tarn/*.h and every project header
# they include, directly or through others. The platform headers nobody of them
# includes stay inside the source tree: they declare classes libtarn.so does
# not export. TARN_PUBLIC_HEADERS receives the list, relative to include/.
# tarn/MemcachedTier.h belongs to libtarn-memcached.so and is installed with
# it (TARN_MEMCACHED_PUBLIC_HEADERS), not with libtarn.
set(TARN_MEMCACHED_PUBLIC_HEADERS tarn/MemcachedTier.h)
function(tarn_public_headers out)
  set(root ${_TARN_SOURCE_DIR}/include)
  file(GLOB pending RELATIVE ${root} ${root}/tarn/*.h)
  list(REMOVE_ITEM pending ${TARN_MEMCACHED_PUBLIC_HEADERS})
  set(seen "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST seen)
      continue()
    endif()
    list(APPEND seen ${header})
    if(NOT CMAKE_SCRIPT_MODE_FILE)
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${root}/${header})
    endif()
    file(STRINGS ${root}/${header} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" included "${line}")
      if(NOT EXISTS ${root}/${included})
        message(FATAL_ERROR "${header} includes \"${included}\", which is not under include/")
      endif()
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  list(SORT seen)
  set(${out} ${seen} PARENT_SCOPE)
endfunction()

if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  tarn_public_headers(_tarn_headers)
  foreach(_tarn_header IN LISTS _tarn_headers)
    execute_process(COMMAND ${CMAKE_COMMAND} -E echo "include/${_tarn_header}")
  endforeach()
endif()
