# Installs libtarn.so, the public headers, a CMake package (Tarn::tarn) and a
# pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tarn EXPORT TarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tarn ${PROJECT_SOURCE_DIR}/include/pt
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT TarnTargets NAMESPACE Tarn::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TarnConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarnConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnConfig.cmake ${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn)

configure_file(${PROJECT_SOURCE_DIR}/cmake/tarn.pc.in ${PROJECT_BINARY_DIR}/tarn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
