# Packaging of the update program: `cmake --install <build>` installs it, and
# `cpack -G DEB` in a build directory of the linux target makes a Debian
# package of it. Only the programs and their manuals are installed, plus the
# base library for other projects; tests, test servers and benchmarks stay in
# the build tree.

set(CPACK_PACKAGE_NAME "kx-updater")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Command-line updater of the kx backup agent")
set(CPACK_PACKAGE_DESCRIPTION
    "Checks an update server for a newer agent, downloads and verifies the setup package, and reinstalls the agent service.")
set(CPACK_STRIP_FILES ON)

# One Debian package per install component: kx-updater for the machines that
# run the programs, kx-base-dev for building other projects against the base
# library, so that the first carries no headers or static library.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_UPDATER_PACKAGE_NAME "kx-updater")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME "kx-base-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION "libdevel")
# CPack puts the one summary above every component's description.
set(CPACK_COMPONENT_UPDATER_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "The updater's base library (logger, OS layer, hashing) as a static library with its headers and a CMake package, for building other programs against it: find_package(kxbase), target kx::base.")
# Its CMake package looks for OpenSSL's crypto library, which it links.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libssl-dev")

# Next to the agent's configuration root (/etc/opt/kx): a package in /opt
# owns nothing that a distribution package could also ship, such as a
# /usr/sbin/update.
set(CPACK_PACKAGING_INSTALL_PREFIX "/opt/kx")

set(KX_PACKAGE_MAINTAINER "kx updater maintainers <updater@localhost>"
    CACHE STRING "Maintainer field of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KX_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION "admin")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The library dependencies (libcurl, libssl; Boost and the C++ runtime too
# without KX_STATIC_CXX_RUNTIME) are read from the binary when dpkg-shlibdeps
# (dpkg-dev) is there; without it the package lists none.
find_program(KX_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KX_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  message(STATUS "dpkg-shlibdeps not found: the Debian package will not list its library dependencies")
endif()

# A Debian package only makes sense of the program that follows the Linux
# flow; a macos-target build still gets an archive.
if(KX_TARGET_OS STREQUAL "linux")
  set(CPACK_GENERATOR "DEB")
else()
  set(CPACK_GENERATOR "TGZ")
endif()

include(CPack)
