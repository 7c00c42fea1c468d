# Installs libtarn-memcached.so (component memcached-runtime) and what an
# application needs to build against it (memcached-dev): tarn/MemcachedTier.h,
# the link, the CMake targets read by find_package(Tarn COMPONENTS memcached)
# and tarn-memcached.pc. Included by TarnInstall.cmake, which defines the
# variables used here.
list(TRANSFORM TARN_MEMCACHED_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/include/
  OUTPUT_VARIABLE _tarn_memcached_header_paths)
string(REPLACE ";" "\n" _tarn_memcached_header_lines "${_tarn_memcached_header_paths}")
file(WRITE ${PROJECT_BINARY_DIR}/memcached-public-headers.txt "${_tarn_memcached_header_lines}\n")

install(TARGETS tarn-memcached EXPORT TarnMemcachedTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT memcached-runtime
    NAMELINK_COMPONENT memcached-dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(header IN LISTS TARN_MEMCACHED_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/include/${header}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder} COMPONENT memcached-dev)
endforeach()
install(EXPORT TarnMemcachedTargets NAMESPACE Tarn::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn COMPONENT memcached-dev)

# Same prefix handling as tarn.pc (see TarnInstall.cmake).
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(TARN_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(TARN_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(TARN_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  foreach(_tarn_dir TARN_PC_LIBDIR TARN_PC_INCLUDEDIR)
    if(NOT IS_ABSOLUTE \"\${\${_tarn_dir}}\")
      set(\${_tarn_dir} \"\\\${prefix}/\${\${_tarn_dir}}\")
    endif()
  endforeach()
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/tarn-memcached.pc.in\"
    \"${PROJECT_BINARY_DIR}/tarn-memcached.pc\" @ONLY)
" COMPONENT memcached-dev)
install(FILES ${PROJECT_BINARY_DIR}/tarn-memcached.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT memcached-dev)

if(TARN_BUILD_TESTS)
  add_test(NAME Install.MemcachedFunctionsExported
    COMMAND ${PROJECT_SOURCE_DIR}/tests/check_exports.sh $<TARGET_FILE:tarn-memcached>
      ${_tarn_memcached_header_paths})
  set_tests_properties(Install.MemcachedFunctionsExported PROPERTIES LABELS install)
endif()
