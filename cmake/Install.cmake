# cmake --install puts the library, its headers, a CMake package
# (find_package(Velquin CONFIG)) and a pkg-config file in place.
include(CMakePackageConfigHelpers)

install(TARGETS velquin velquin_proto EXPORT VelquinTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/velquin DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_BINARY_DIR}/proto/gen/velquin/proto/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velquin/proto FILES_MATCHING PATTERN "*.h")
set_target_properties(velquin_proto PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/proto/gen/velquin/proto>")
target_include_directories(velquin_proto SYSTEM PUBLIC
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/velquin/proto>)
install(EXPORT VelquinTargets NAMESPACE Velquin:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)
configure_package_config_file(cmake/VelquinConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VelquinConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelquinConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelquinConfig.cmake ${PROJECT_BINARY_DIR}/VelquinConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)
configure_file(cmake/velquin.pc.in ${PROJECT_BINARY_DIR}/velquin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velquin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
