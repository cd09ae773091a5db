# What `cmake --install` leaves behind: the two libraries, their headers, a package for find_package(OrvanNet)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

target_compile_features(orvan_support PUBLIC cxx_std_17)
# Each finds what it needs beside itself, wherever the prefix ends up.
set_target_properties(orvan_support orvan_net PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS orvan_support orvan_net EXPORT OrvanNetTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT OrvanNetTargets NAMESPACE Orvan:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OrvanNet
  COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OrvanNetConfig.cmake.in
  ${PROJECT_BINARY_DIR}/OrvanNetConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OrvanNet)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrvanNetConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OrvanNetConfig.cmake ${PROJECT_BINARY_DIR}/OrvanNetConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OrvanNet COMPONENT Development)
file(RELATIVE_PATH ORVAN_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ORVAN_PREFIX_FROM_PC ${ORVAN_PREFIX_FROM_PC})
configure_file(${PROJECT_SOURCE_DIR}/cmake/orvan-net.pc.in ${PROJECT_BINARY_DIR}/orvan-net.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvan-net.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)
