# Run by CPack (CPACK_PRE_BUILD_SCRIPTS) once the components are staged and before the .deb files
# are made: every package gets the copyright file and the compressed changelog that Debian puts in
# /usr/share/doc/PACKAGE, and its lintian overrides. They go into the packages only, never into
# a cmake --install.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER "${component}" upper)
  set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  set(stage "${CPACK_TEMPORARY_DIRECTORY}/${component}")
  if(NOT IS_DIRECTORY "${stage}" OR NOT package)
    message(FATAL_ERROR "DebianDocs: no staged files or package name for component ${component}")
  endif()
  set(doc "${stage}${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/${package}")
  file(MAKE_DIRECTORY "${doc}")
  file(COPY "${CPACK_VEXLO_DEB_COPYRIGHT}" DESTINATION "${doc}"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(COPY "${CPACK_VEXLO_DEB_CHANGELOG}" DESTINATION "${doc}"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  # These packages are not uploaded to the Debian archive, so the first changelog entry has no
  # "intent to package" bug to close.
  set(overrides "${stage}${CPACK_PACKAGING_INSTALL_PREFIX}/share/lintian/overrides")
  file(MAKE_DIRECTORY "${overrides}")
  file(WRITE "${overrides}/${package}"
       "# Not uploaded to the Debian archive: there is no bug for the first upload to close.\n"
       "${package}: initial-upload-closes-no-bugs\n")
  # A package's own overrides, with their reasons: packaging/debian/PACKAGE/lintian-overrides.
  get_filename_component(debian "${CPACK_VEXLO_DEB_COPYRIGHT}" DIRECTORY)
  if(EXISTS "${debian}/${package}/lintian-overrides")
    file(READ "${debian}/${package}/lintian-overrides" own)
    file(APPEND "${overrides}/${package}" "${own}")
  endif()
endforeach()
