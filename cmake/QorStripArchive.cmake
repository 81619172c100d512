# Run by cpack after the install into its staging folder: CPACK_STRIP_FILES
# strips the programs and the shared library, not libqor.a, whose debug
# information would make up most of the package. Named in
# CPACK_PRE_BUILD_SCRIPTS by cmake/QorPackage.cmake.
file(GLOB_RECURSE qor_archives "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/libqor.a")
foreach(archive IN LISTS qor_archives)
  execute_process(COMMAND strip --strip-debug "${archive}" RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "strip --strip-debug ${archive} failed: ${status}")
  endif()
endforeach()
