# cmake --install puts the library, its public headers, a CMake package
# (find_package(Velquin CONFIG)) and a pkg-config file in place. Both the
# package and the .pc file find their prefix relative to where they are
# installed, so any --prefix works.
include(CMakePackageConfigHelpers)

install(TARGETS velquin EXPORT VelquinTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/velquin DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT VelquinTargets NAMESPACE Velquin:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)
configure_package_config_file(cmake/VelquinConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VelquinConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelquinConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelquinConfig.cmake ${PROJECT_BINARY_DIR}/VelquinConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)

# pkg-config: the prefix is the .pc file's folder, climbed back up the libdir.
file(RELATIVE_PATH VELQUIN_PC_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VELQUIN_PC_PREFIX "\${pcfiledir}/${VELQUIN_PC_PREFIX}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "velquin.pc needs CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR relative to the prefix")
endif()
if(VELQUIN_SHARED)
  # The shared library carries its own dependencies.
  set(VELQUIN_PC_REQUIRES_PRIVATE "")
  set(VELQUIN_PC_LIBS_PRIVATE "")
  set(VELQUIN_PC_CFLAGS "")
else()
  # libcurl is named directly: its own .pc lists, for fully static links, the
  # static dependencies of curl itself (rtmp, ssh2, ldap, ...), which a link
  # against the shared libcurl does not need and Debian does not install.
  set(VELQUIN_PC_REQUIRES_PRIVATE
    "grpc++ protobuf sqlite3 libcrypto gio-2.0 glib-2.0 libplist-2.0 uuid libsystemd libsecret-1 libunwind libdw")
  set(VELQUIN_PC_LIBS_PRIVATE "-lSQLiteCpp -lcurl -pthread")
  set(VELQUIN_PC_CFLAGS " -DVELQUIN_STATIC")
endif()
configure_file(cmake/velquin.pc.in ${PROJECT_BINARY_DIR}/velquin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velquin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# libvelquin-gtk, when the pages are built: the library, its CMake targets
# (VelquinConfig.cmake includes them when GTK 4 is found: the component gtk)
# and velquin-gtk.pc. Its header is installed with the rest of include/velquin.
if(TARGET velquin_gtk)
  install(TARGETS velquin_gtk EXPORT VelquinGtkTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(EXPORT VelquinGtkTargets NAMESPACE Velquin::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velquin)
  if(VELQUIN_SHARED)
    set(VELQUIN_GTK_PC_REQUIRES_PRIVATE "")
  else()
    set(VELQUIN_GTK_PC_REQUIRES_PRIVATE "webkitgtk-6.0 icu-uc icu-i18n")
  endif()
  configure_file(cmake/velquin-gtk.pc.in ${PROJECT_BINARY_DIR}/velquin-gtk.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/velquin-gtk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
