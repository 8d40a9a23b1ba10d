# The Python package (python/tamrik): installed for the system's Python into its
# site-packages under the install prefix, with a link to the installed libtamrik.so beside
# it, so that the package finds the library of its own installation first, and with the
# metadata that registers its pytest plugin.
include(GNUInstallDirs)

set(TAMRIK_PYTHON "/usr/bin/python3" CACHE FILEPATH "The Python that the package is installed for")
if(NOT EXISTS "${TAMRIK_PYTHON}")
  message(STATUS "tamrik: no ${TAMRIK_PYTHON}; the Python package is not installed")
  return()
endif()
execute_process(
  COMMAND "${TAMRIK_PYTHON}" -c "import sys; print('%d.%d' % sys.version_info[:2])"
  OUTPUT_VARIABLE TAMRIK_PYTHON_VERSION OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
if(failed)
  message(STATUS "tamrik: ${TAMRIK_PYTHON} does not run; the Python package is not installed")
  return()
endif()

# Debian's Python looks in /usr/lib/python3/dist-packages for the system's packages and in
# <prefix>/lib/python3.N/dist-packages for those of other prefixes (/usr/local).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(default_dir lib/python3/dist-packages)
else()
  set(default_dir lib/python${TAMRIK_PYTHON_VERSION}/dist-packages)
endif()
set(TAMRIK_PYTHON_INSTALL_DIR ${default_dir} CACHE STRING "Where the Python package goes, relative to the prefix")

install(DIRECTORY python/tamrik DESTINATION ${TAMRIK_PYTHON_INSTALL_DIR} COMPONENT python
  PATTERN __pycache__ EXCLUDE PATTERN "*.so*" EXCLUDE)

# Relative, so that the installation can be moved or made with --prefix. Where the loader
# finds the library by its SONAME anyway (TAMRIK_LIBDIR_IS_SYSTEM, the prefix /usr) the package
# loads it by that name and needs no link.
if(NOT TAMRIK_LIBDIR_IS_SYSTEM)
file(RELATIVE_PATH TAMRIK_PYTHON_LIBRARY_LINK "/p/${TAMRIK_PYTHON_INSTALL_DIR}/tamrik"
  "/p/${CMAKE_INSTALL_LIBDIR}/libtamrik.so.${PROJECT_VERSION_MAJOR}")
install(CODE "
  set(package \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${TAMRIK_PYTHON_INSTALL_DIR}/tamrik\")
  file(REMOVE \"\${package}/libtamrik.so.${PROJECT_VERSION_MAJOR}\")
  file(CREATE_LINK \"${TAMRIK_PYTHON_LIBRARY_LINK}\" \"\${package}/libtamrik.so.${PROJECT_VERSION_MAJOR}\" SYMBOLIC)
  message(STATUS \"Installing: \${package}/libtamrik.so.${PROJECT_VERSION_MAJOR} -> ${TAMRIK_PYTHON_LIBRARY_LINK}\")"
  COMPONENT python)
endif()

# The metadata pip would write: the pytest plugin is found through its entry point.
set(dist_info ${CMAKE_CURRENT_BINARY_DIR}/python/tamrik-${PROJECT_VERSION}.dist-info)
file(WRITE ${dist_info}/METADATA "Metadata-Version: 2.1\nName: tamrik\nVersion: ${PROJECT_VERSION}\n")
file(WRITE ${dist_info}/entry_points.txt "[pytest11]\ntamrik = tamrik.pytest_plugin\n")
file(WRITE ${dist_info}/INSTALLER "cmake\n")
install(DIRECTORY ${dist_info} DESTINATION ${TAMRIK_PYTHON_INSTALL_DIR} COMPONENT python)
