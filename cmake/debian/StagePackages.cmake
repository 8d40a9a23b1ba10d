# Run by CPack once it has staged the files of every package (CPACK_PRE_BUILD_SCRIPTS, set in
# cmake/Packaging.cmake). Adds what Debian wants in each package beside the install rules' files,
# so that an ordinary installation (cmake --install) stays as it is: the copyright file and the
# compressed changelog in /usr/share/doc/<package>, the lintian overrides, and man pages
# compressed.
foreach(entry IN LISTS CPACK_TAMRIK_DEB_PACKAGES)
  string(REPLACE "=" ";" entry "${entry}")
  list(GET entry 0 group)
  list(GET entry 1 package)
  set(root "${CPACK_TEMPORARY_DIRECTORY}/${group}")
  if(NOT IS_DIRECTORY "${root}")
    message(FATAL_ERROR "no staged files of ${package} in ${root}")
  endif()
  set(doc "${root}${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/${package}")
  file(MAKE_DIRECTORY "${doc}")
  file(COPY_FILE "${CPACK_TAMRIK_DEB_DOC_DIR}/copyright" "${doc}/copyright")
  execute_process(COMMAND gzip -9n -c "${CPACK_TAMRIK_DEB_DOC_DIR}/changelog.Debian"
    OUTPUT_FILE "${doc}/changelog.Debian.gz" COMMAND_ERROR_IS_FATAL ANY)
  set(overrides "${root}${CPACK_PACKAGING_INSTALL_PREFIX}/share/lintian/overrides/${package}")
  file(READ "${CPACK_TAMRIK_DEB_SOURCE_DIR}/lintian-overrides" text)
  if(EXISTS "${CPACK_TAMRIK_DEB_SOURCE_DIR}/${group}/lintian-overrides")
    file(READ "${CPACK_TAMRIK_DEB_SOURCE_DIR}/${group}/lintian-overrides" own)
    string(APPEND text "${own}")
  endif()
  file(WRITE "${overrides}" "${text}")
  file(GLOB_RECURSE pages "${root}${CPACK_PACKAGING_INSTALL_PREFIX}/share/man/*")
  list(FILTER pages EXCLUDE REGEX "\\.gz$")
  foreach(page IN LISTS pages)
    execute_process(COMMAND gzip -9nf "${page}" COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endforeach()
