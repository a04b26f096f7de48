# Packaging of the update program: `cmake --install <build>` installs it, and
# `cpack -G DEB` in a build directory of the linux target makes a Debian
# package of it. Only the program is installed (sbin/update); tests, test
# servers and benchmarks stay in the build tree.

set(CPACK_PACKAGE_NAME "kx-updater")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Command-line updater of the kx backup agent")
set(CPACK_PACKAGE_DESCRIPTION
    "Checks an update server for a newer agent, downloads and verifies the setup package, and reinstalls the agent service.")
set(CPACK_STRIP_FILES ON)

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
# The library dependencies (libcurl, libssl, Boost) are read from the binary
# when dpkg-shlibdeps (dpkg-dev) is there; without it the package lists none.
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
