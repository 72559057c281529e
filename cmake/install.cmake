# Install rules and packaging. An installed tree holds the shared library
# (versioned, with a SONAME of the major version), the two public headers
# under include/qeltradeapi, a relocatable CMake package with the imported
# target qeltradeapi::qeltradeapi, and a relocatable pkg-config file. The
# internal static library, tests, benchmarks and tools are never installed.
# `cpack -G DEB` packages the same rules.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# libqeltradeapi.so -> .so.2 (the SONAME) -> .so.2.0.0
set_target_properties(qeltradeapi PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})

# Applications include the headers by their plain names, so the include
# directory is the package's own folder, not include/.
set(QEL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qeltradeapi)
set(QEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qeltradeapi)
set(QEL_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS qeltradeapi EXPORT qeltradeapiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${QEL_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/api/QelcTraderApi.h ${PROJECT_SOURCE_DIR}/api/QelcTraderApiStruct.h
  DESTINATION ${QEL_INSTALL_INCLUDEDIR})

# The exported targets file finds its prefix from its own location, so the
# package works wherever the tree is installed or moved.
install(EXPORT qeltradeapiTargets NAMESPACE qeltradeapi:: DESTINATION ${QEL_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qeltradeapiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qeltradeapiConfig.cmake
  INSTALL_DESTINATION ${QEL_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qeltradeapiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qeltradeapiConfig.cmake ${PROJECT_BINARY_DIR}/qeltradeapiConfigVersion.cmake
  DESTINATION ${QEL_INSTALL_CMAKEDIR})

# The .pc file names its prefix relative to its own folder (${pcfiledir}),
# so it stays right under `cmake --install --prefix` and in the package.
file(RELATIVE_PATH QEL_PC_PREFIX /prefix/${QEL_INSTALL_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" QEL_PC_PREFIX "\${pcfiledir}/${QEL_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/qeltradeapi.pc.in ${PROJECT_BINARY_DIR}/qeltradeapi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qeltradeapi.pc DESTINATION ${QEL_INSTALL_PKGCONFIGDIR})

# Debian package of the same install tree.
set(CPACK_PACKAGE_NAME qeltradeapi)
set(CPACK_PACKAGE_VENDOR "qeltradeapi developers")
set(CPACK_PACKAGE_CONTACT "qeltradeapi developers <qeltradeapi@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "client library for trading on a derivatives exchange")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
find_program(QEL_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(QEL_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)   # libc and libstdc++ versions from the library itself
endif()
include(CPack)
