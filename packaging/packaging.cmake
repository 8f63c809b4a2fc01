# What cpack makes: a tar archive of one directory, and a Debian package of the same files in their
# usual place, with what Debian asks of a package beside them.

set(CPACK_GENERATOR "TGZ;DEB")
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Valta")
set(CPACK_PACKAGE_CONTACT "Valta driver developers <developers@valta.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "uninstaller for the Valta GPU driver stack")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
  set(architecture arm64)
else()
  set(architecture amd64)
endif()
set(CPACK_SYSTEM_NAME "linux-${architecture}")
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Unloads the kernel modules of the driver stack and removes what its
installer recorded: files, links, directories, services and the DKMS
registration. Files that changed since installation are kept.")

# Read once for each generator.
configure_file(packaging/per-generator.cmake.in per-generator.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/per-generator.cmake)
configure_file(packaging/finish-staging.cmake.in finish-staging.cmake @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_BINARY_DIR}/finish-staging.cmake)
include(CPack)
