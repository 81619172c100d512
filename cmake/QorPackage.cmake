# The Debian package, made by `make package` (cpack -G DEB in a build folder
# configured with the prefix /usr). It holds what the install rules install;
# dist/debian/ has its maintainer scripts. Included last by the top-level
# CMakeLists.txt.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qor)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${QOR_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# qor_<version>_<arch>.deb, as Debian names its packages.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "supervisor of a host's monitoring agents
qor finds the monitoring agents of one Linux host in /proc, as their CAP
files describe them, checks them on a schedule, restarts what failed within
a daily limit, answers commands on a local socket and reports every change
to listeners as events.
This package holds the daemons qorhost and qorwd with their systemd units
(installed, not enabled), the command qorctl, the library libqor with
qorapi.h, pkg-config and CMake files for programs that embed it, the manual
pages, the CAP schema and examples.")
# The libraries' packages come from dpkg-shlibdeps; addgroup, which the
# postinst falls back on where systemd-sysusers is missing, from adduser.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
# The shlibs file and the ldconfig trigger of libqor.so.0.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/dist/debian/postinst ${CMAKE_SOURCE_DIR}/dist/debian/prerm
  ${CMAKE_SOURCE_DIR}/dist/debian/postrm ${CMAKE_SOURCE_DIR}/dist/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
# The debug information stays in the build folder.
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/QorStripArchive.cmake)
include(CPack)
