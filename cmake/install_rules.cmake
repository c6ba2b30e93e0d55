# Install rules: headers, the two libraries, the hub, lumaren-ctl and a CMake package, so that
# a host project writes find_package(LumarenCore) and links Lumaren::core.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(LUMAREN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/LumarenCore)

# Installed binaries find the installed libraries relative to themselves, so that a prefix
# can be moved or unpacked anywhere. Computed from the GNU directories rather than spelled
# "../lib", because LIBDIR is lib/<multiarch> when the prefix is /usr.
file(RELATIVE_PATH _lumaren_bin_to_lib
  ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(lumaren-hub lumaren-ctl Lumaren.ModuleLoader Orbisant.ModuleLoader
  PROPERTIES INSTALL_RPATH "$ORIGIN/${_lumaren_bin_to_lib}")
# core needs fn, which sits next to it.
set_target_properties(fn core PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS fn core
  EXPORT LumarenCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The loaders sit beside the hub: module definitions find it in the hub's own bin directory.
install(TARGETS lumaren-hub lumaren-ctl Lumaren.ModuleLoader Orbisant.ModuleLoader RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Every header under the two library folders, found when installing rather than listed, so
# that a header added to either library installs without touching this file. The include
# root is libs/, hence foundation/... and core/... below include/.
install(DIRECTORY
  ${PROJECT_SOURCE_DIR}/libs/foundation
  ${PROJECT_SOURCE_DIR}/libs/core
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

install(EXPORT LumarenCoreTargets
  NAMESPACE Lumaren::
  DESTINATION ${LUMAREN_INSTALL_CMAKEDIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/LumarenCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LumarenCoreConfig.cmake
  INSTALL_DESTINATION ${LUMAREN_INSTALL_CMAKEDIR})
# Before 1.0 a minor release may break the interface, so only the same minor version matches.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/LumarenCoreConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/LumarenCoreConfig.cmake
  ${PROJECT_BINARY_DIR}/LumarenCoreConfigVersion.cmake
  DESTINATION ${LUMAREN_INSTALL_CMAKEDIR})
