# What cpack makes: a tar archive of one directory, a Debian package and an RPM of the same files,
# which lie where the package manager's programs do.

set(CPACK_GENERATOR "TGZ;DEB;RPM")
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Valta")
set(CPACK_PACKAGE_CONTACT "Valta driver developers <developers@valta.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "uninstaller for the Valta GPU driver stack")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(description "Unloads the kernel modules of the driver stack and removes everything in
the manifest of its installer: files, links, directories, services and the
DKMS module. Keeps files that were changed since the installation. A second
program predicts a run and checks the last one. A third one does all of this
in one command and can undo it. Removing this package does not uninstall the
driver stack.")

# The name of the processor in each family.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(architecture arm64)
  set(rpm_architecture aarch64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(architecture amd64)
  set(rpm_architecture x86_64)
else()
  set(architecture "")  # no package, as per-generator.cmake says
endif()
set(CPACK_SYSTEM_NAME "linux-${architecture}")

set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION ${description})
set(CPACK_DEBIAN_PACKAGE_DEPENDS "kmod")  # rmmod and depmod; the programs are static

set(CPACK_RPM_PACKAGE_SUMMARY "Uninstaller for the Valta GPU driver stack")
set(CPACK_RPM_PACKAGE_ARCHITECTURE ${rpm_architecture})
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_COMPRESSION_TYPE xz)
set(CPACK_RPM_PACKAGE_GROUP "Applications/System")
set(CPACK_RPM_PACKAGE_LICENSE "All rights reserved")
set(CPACK_RPM_PACKAGE_DESCRIPTION ${description})
set(CPACK_RPM_PACKAGE_REQUIRES "kmod")
set(CPACK_RPM_PACKAGE_AUTOREQ OFF)
set(CPACK_RPM_CHANGELOG_FILE ${PROJECT_BINARY_DIR}/rpm-changelog)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/sbin /usr/share/man /usr/share/man/man8)
# Nothing of the machine that packs, and no time but that of the commit.
set(CPACK_RPM_SPEC_MORE_DEFINE "%define packager ${CPACK_PACKAGE_CONTACT}
%define _buildhost valta.example
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _build_id_links none
%define __os_install_post %{nil}")
set(CPACK_RPMBUILD_FLAGS "--target=${rpm_architecture}-linux")

# Read once for each generator, and run on the staged files.
configure_file(packaging/per-generator.cmake.in per-generator.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/per-generator.cmake)
configure_file(packaging/finish-staging.cmake.in finish-staging.cmake @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_BINARY_DIR}/finish-staging.cmake)
include(CPack)
