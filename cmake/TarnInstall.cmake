# Installs libtarn.so, the headers an application needs, a CMake package
# (Tarn::tarn), a pkg-config file, tarn-inspect and its manual page.
#
# Components, so that a distribution can split them into packages:
#   runtime  libtarn.so.MAJOR and its versioned file
#   dev      headers, the libtarn.so link, CMake package, pkg-config file
#   tools    tarn-inspect and tarn-inspect(1)
#   memcached-runtime  libtarn-memcached.so.0 and its versioned file
#   memcached-dev      tarn/MemcachedTier.h, the libtarn-memcached.so link,
#                      the CMake component (find_package(Tarn COMPONENTS
#                      memcached), target Tarn::tarn-memcached) and
#                      tarn-memcached.pc
include(CMakePackageConfigHelpers)

include(${CMAKE_CURRENT_LIST_DIR}/TarnPublicHeaders.cmake)
tarn_public_headers(TARN_PUBLIC_HEADERS)
# The list, for the export check (tests/check_exports.sh).
list(TRANSFORM TARN_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/include/
  OUTPUT_VARIABLE _tarn_header_paths)
string(REPLACE ";" "\n" _tarn_header_lines "${_tarn_header_paths}")
file(WRITE ${PROJECT_BINARY_DIR}/public-headers.txt "${_tarn_header_lines}\n")

# An application's compiler needs C++17 for the headers, whatever standard the
# library itself is built with.
target_compile_features(tarn INTERFACE cxx_std_17)

install(TARGETS tarn EXPORT TarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(header IN LISTS TARN_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/include/${header}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder} COMPONENT dev)
endforeach()
install(EXPORT TarnTargets NAMESPACE Tarn::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn COMPONENT dev)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TarnConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarnConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnConfig.cmake ${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn COMPONENT dev)

# The pkg-config file names its directories from the prefix (Debian's layout
# puts the library two levels under it, so a path relative to the .pc file
# does not find the headers). The prefix is the one in force when installing:
# `cmake --install --prefix /usr` writes /usr even when the tree was configured
# for /usr/local. Directories given as absolute at configure time are kept.
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
  set(TARN_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(TARN_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(TARN_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  foreach(_tarn_dir TARN_PC_LIBDIR TARN_PC_INCLUDEDIR)
    if(NOT IS_ABSOLUTE \"\${\${_tarn_dir}}\")
      set(\${_tarn_dir} \"\\\${prefix}/\${\${_tarn_dir}}\")
    endif()
  endforeach()
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/tarn.pc.in\" \"${PROJECT_BINARY_DIR}/tarn.pc\" @ONLY)
" COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/tarn.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(TARN_BUILD_MEMCACHED)
  include(${CMAKE_CURRENT_LIST_DIR}/TarnMemcachedInstall.cmake)
endif()

if(TARN_BUILD_TOOLS)
  install(TARGETS tarn-inspect RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/doc/tarn-inspect.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/doc/abi.md
  ${PROJECT_SOURCE_DIR}/doc/cache-file-format.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)

# Every function the public headers declare is exported by libtarn.so.
if(TARN_BUILD_TESTS)
  add_test(NAME Install.PublicFunctionsExported
    COMMAND ${PROJECT_SOURCE_DIR}/tests/check_exports.sh $<TARGET_FILE:tarn> ${_tarn_header_paths})
  set_tests_properties(Install.PublicFunctionsExported PROPERTIES LABELS install)
endif()
