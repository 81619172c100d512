# What an install puts beside the libraries and the programs: the CMake
# package that find_package(qor) reads, the CAP schema and the examples, the
# default CAP folder and the system group that may use the control socket.
# Included by the top-level CMakeLists.txt; `make install` and the Debian
# package (cmake/QorPackage.cmake) both run these rules.

include(CMakePackageConfigHelpers)

# ---- The CMake package --------------------------------------------------------
# Paths in the exported files are relative to the file's own folder, so that
# an install under DESTDIR or a moved prefix is found where it lies.
set(QOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qor)
install(EXPORT qorTargets NAMESPACE qor:: DESTINATION ${QOR_CMAKE_DIR})
install(EXPORT qorStaticTargets NAMESPACE qor:: DESTINATION ${QOR_CMAKE_DIR})
configure_package_config_file(cmake/qorConfig.cmake.in ${CMAKE_BINARY_DIR}/qorConfig.cmake
  INSTALL_DESTINATION ${QOR_CMAKE_DIR})
# The library's SONAME is libqor.so.0 for every 0.x: the loader takes any 0.x
# for a program built against 0.1, so find_package takes it too. A change
# that breaks the interface raises both the major version and the SONAME.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qorConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qorConfig.cmake ${CMAKE_BINARY_DIR}/qorConfigVersion.cmake
  DESTINATION ${QOR_CMAKE_DIR})

# ---- The schema and the examples ------------------------------------------------
# The examples keep the shape of examples/ in the tree, since their files name
# each other by relative paths (../mdhcap.xsd, ../scripts, ../suite). demo.sh
# stays out: it runs the programs of a build folder.
set(QOR_EXAMPLES_DIR ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES examples/mdhcap.xsd DESTINATION ${QOR_EXAMPLES_DIR})
install(DIRECTORY examples/cap examples/prometheus examples/logrotate DESTINATION ${QOR_EXAMPLES_DIR})
install(PROGRAMS examples/scripts/example-daemon.sh examples/scripts/qorhost-daemon.sh
                 examples/scripts/restart-timing.sh
  DESTINATION ${QOR_EXAMPLES_DIR}/scripts)
install(PROGRAMS examples/suite/bin/vexinf DESTINATION ${QOR_EXAMPLES_DIR}/suite/bin)

set(QOR_PACKAGE_MAINTAINER "qor developers <qor-dev@example.org>" CACHE STRING
  "The Maintainer field of the Debian package and the signature of its changelog")
# The package's copyright and its history, in the form Debian's tools read;
# the history is compressed without a time stamp, so that two builds of one
# version give the same bytes.
configure_file(dist/debian/changelog.in ${CMAKE_BINARY_DIR}/dist/changelog @ONLY)
execute_process(COMMAND gzip -n -9 -c ${CMAKE_BINARY_DIR}/dist/changelog
  OUTPUT_FILE ${CMAKE_BINARY_DIR}/dist/changelog.gz RESULT_VARIABLE qor_gzip_status)
if(NOT qor_gzip_status EQUAL 0)
  message(FATAL_ERROR "gzip of the changelog failed: ${qor_gzip_status}")
endif()
install(FILES dist/debian/copyright ${CMAKE_BINARY_DIR}/dist/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DOCDIR})

# ---- The host's folders and group -----------------------------------------------
# The CAP folder: /etc/qor/cap.d under the prefix /usr, <prefix>/etc/qor/cap.d
# otherwise. The systemd units (dist/systemd) name it as QOR_CAP_DIR. It is
# installed empty; the administrator puts the CAP files there.
set(QOR_CAP_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/qor/cap.d)
install(DIRECTORY DESTINATION ${QOR_CAP_DIR})
# The system group qor, whose members may use qorhost's control socket. The
# package's postinst has systemd-sysusers create it from this file.
set(QOR_SYSUSERS_DIR "${CMAKE_INSTALL_PREFIX}/lib/sysusers.d" CACHE PATH
  "Where the sysusers.d file that declares the group qor is installed")
install(FILES dist/debian/qor.sysusers DESTINATION ${QOR_SYSUSERS_DIR} RENAME qor.conf)
