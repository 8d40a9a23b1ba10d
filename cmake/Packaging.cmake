# Debian packages, made by CPack from the ordinary install rules (cpack -G DEB in a build
# configured with the prefix /usr; scripts/test-packages.sh builds, checks, installs and
# removes them):
#
#   libtamrik2      the shared library (install component "library")
#   libtamrik-dev   tamrik.h, tamrik_version.h, libtamrik.so, the CMake package and tamrik.pc
#                   ("development")
#   python3-tamrik  the Python package for Debian's python3 ("python")
#   tamrik-tools    everything else: the programs, their man pages and completion, the
#                   demonstration station, and whatever other install rules add (the
#                   Wireshark dissector, for one), whatever their component
#
# The installed programs carry no library search path when the prefix is /usr
# (TAMRIK_LIBDIR_IS_SYSTEM in cmake/ToolAndPackage.cmake): the library lies where the loader
# looks, and Debian forbids custom search paths.
include(GNUInstallDirs)

set(TAMRIK_DEB_MAINTAINER "tamrik maintainers <maintainers@tamrik.example>"
  CACHE STRING "The Maintainer field of the Debian packages")
set(TAMRIK_DEB_RELEASE 1 CACHE STRING "The Debian revision of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tamrik)
set(CPACK_PACKAGE_VENDOR "tamrik")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${TAMRIK_DEB_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TAMRIK_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${TAMRIK_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The programs need libtamrik.so.2 of this build: dpkg-shlibdeps finds it here, and the
# dependency on its package is stated below, since no installed package describes it yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(deb_version "${PROJECT_VERSION}-${TAMRIK_DEB_RELEASE}")
set(lib_package libtamrik${PROJECT_VERSION_MAJOR})

set(groups lib dev tools python)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME ${lib_package})
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_DESCRIPTION "communication driver for field-bus gateways (library)
The driver opens a serial line, a UDP or a TCP link to one field-bus gateway,
exchanges the gateway's service frames and unpacks the answers: process data,
parameters, diagnosis, gateway information and control, firmware and image
downloads. This package holds the shared library with its C interface.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtamrik-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${lib_package} (= ${deb_version})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "communication driver for field-bus gateways (development files)
The header tamrik.h of the driver's C interface, the link to the shared
library, a CMake package (find_package(tamrik)) and a pkg-config file
(pkg-config tamrik) for building host programs against the driver.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tamrik-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${lib_package} (= ${deb_version})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "communication driver for field-bus gateways (programs)
The tamrik tool talks to one gateway from the shell (identity, modules, inputs
and outputs, error list, downloads); without a link it starts a simulated
gateway inside itself. tamrik-sim is a gateway in software for trying host
programs, with fault injection. Both come with man pages and bash completion;
the demonstration station lies in /usr/share/tamrik.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tamrik)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any, ${lib_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-pytest, tamrik-tools")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "communication driver for field-bus gateways (Python 3)
The package tamrik gives Python programs and test rigs a thread-safe Gateway
over the driver's C interface, the same for asyncio, the simulator steered
while it runs, and a pytest plugin with simulator and gateway fixtures.")

# What Debian wants in every package besides the install rules' files: a copyright file and a
# compressed changelog in /usr/share/doc/<package>, man pages compressed, and the lintian
# overrides (cmake/debian/lintian-overrides for all, debian/<group>/lintian-overrides for one),
# each with its reason above it. Added to the staged files of each package, so that an ordinary
# installation (cmake --install) stays as it is.
set(TAMRIK_DEB_DOC_DIR ${CMAKE_CURRENT_BINARY_DIR}/debian)
string(TIMESTAMP deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(MAKE_DIRECTORY ${TAMRIK_DEB_DOC_DIR})
file(WRITE ${TAMRIK_DEB_DOC_DIR}/changelog.Debian
"tamrik (${deb_version}) unstable; urgency=medium

  * Release ${PROJECT_VERSION}; what changed at the interface is in CHANGELOG.md
    of the sources.

 -- ${TAMRIK_DEB_MAINTAINER}  ${deb_date}
")
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${TAMRIK_DEB_DOC_DIR}/copyright COPYONLY)
set(packages)
foreach(group IN LISTS groups)
  string(TOUPPER ${group} upper)
  list(APPEND packages "${group}=${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
endforeach()
set(CPACK_TAMRIK_DEB_PACKAGES "${packages}")
set(CPACK_TAMRIK_DEB_DOC_DIR ${TAMRIK_DEB_DOC_DIR})
set(CPACK_TAMRIK_DEB_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR}/debian)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/StagePackages.cmake)

# The Python package compiles its modules when installed and removes what it compiled when
# removed, as Debian's own Python packages do.
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/debian/python/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/python/prerm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The library's package brings the loader's cache up to date through libc's ldconfig trigger.
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/lib/triggers)

# Every install component goes into one of the four packages: the library's, the development
# files' and the Python package's by name, every other one (the programs' own, "Unspecified",
# and any that install rules name later) with the programs. Deferred to the end of the
# configuration, so that it sees every install rule, wherever it is declared.
function(tamrik_package_components)
  set(group_of_library lib)
  set(group_of_development dev)
  set(group_of_python python)
  get_cmake_property(components COMPONENTS)
  foreach(component IN LISTS components)
    set(group tools)
    if(DEFINED group_of_${component})
      set(group ${group_of_${component}})
    endif()
    string(TOUPPER ${component} upper)
    set(CPACK_COMPONENT_${upper}_GROUP ${group})
  endforeach()
  set(CPACK_COMPONENTS_ALL ${components})
  include(CPack)
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL tamrik_package_components)

# The library exports exactly the functions of tamrik.h, under the header's major release.
if(TAMRIK_BUILD_TESTS)
  add_test(NAME library_exports
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tests/package/check_exports.sh $<TARGET_FILE:tamrik>
            ${CMAKE_CURRENT_SOURCE_DIR}/comserver/capi ${CMAKE_CURRENT_BINARY_DIR}/include)
endif()
