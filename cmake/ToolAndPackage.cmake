# The command-line tool, the simulator program's options, the documentation generator, and
# the installation that host projects build against (CMake package and pkg-config file).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

find_package(CLI11 CONFIG REQUIRED)
find_package(nlohmann_json 3 REQUIRED)

# Installed programs find libtamrik.so through a search path relative to themselves, except
# where the loader finds it by its SONAME anyway (the prefix /usr): there they carry none, as
# Debian's packages must not.
set(TAMRIK_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
set(TAMRIK_LIBDIR_IS_SYSTEM OFF)
if(CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set(TAMRIK_INSTALL_RPATH "")
  set(TAMRIK_LIBDIR_IS_SYSTEM ON)
endif()

# --- tamrik: the command-line tool -----------------------------------------------------------
# The tool reaches the driver only through the C interface of libtamrik.so; result names
# come from there too. Its man page and completion are made by tamrik_progdocs, as the
# simulator program's are.
set(TAMRIK_TOOL_SOURCES
  cli/main.cpp cli/Options.cpp cli/CommandTable.cpp cli/CommandLine.cpp cli/Tool.cpp cli/Session.cpp
  cli/Render.cpp cli/Progress.cpp cli/CommandsGateway.cpp cli/CommandsData.cpp cli/CommandsRaw.cpp
  cli/CommandsWatch.cpp cli/CommandsDownload.cpp cli/FileChecks.cpp cli/Demo.cpp)
add_executable(tamrik-tool ${TAMRIK_TOOL_SOURCES})
set_target_properties(tamrik-tool PROPERTIES OUTPUT_NAME tamrik INSTALL_RPATH "${TAMRIK_INSTALL_RPATH}")
target_include_directories(tamrik-tool PRIVATE cli)
target_compile_definitions(tamrik-tool PRIVATE TAMRIK_VERSION="${PROJECT_VERSION}")
target_link_libraries(tamrik-tool PRIVATE tamrik tamrik_sim tamrik_progdocs CLI11::CLI11 nlohmann_json::nlohmann_json)

# The man page and the bash completion are printed by the tool from its own command table.
set(TAMRIK_MAN_PAGE ${CMAKE_CURRENT_BINARY_DIR}/tamrik.1)
set(TAMRIK_COMPLETION ${CMAKE_CURRENT_BINARY_DIR}/tamrik.bash)
add_custom_command(OUTPUT ${TAMRIK_MAN_PAGE} ${TAMRIK_COMPLETION}
  COMMAND tamrik-tool --man > ${TAMRIK_MAN_PAGE}
  COMMAND tamrik-tool --completion bash > ${TAMRIK_COMPLETION}
  DEPENDS tamrik-tool
  COMMENT "Generating the tamrik man page and bash completion")
add_custom_target(tamrik-manual ALL DEPENDS ${TAMRIK_MAN_PAGE} ${TAMRIK_COMPLETION})
# The shipped demonstration station lies beside the tool in the build tree, as it lies in
# share/tamrik after installation; the tool looks in both places.
configure_file(examples/kaVdmo.ini ${CMAKE_CURRENT_BINARY_DIR}/kaVdmo.ini COPYONLY)

if(TARGET tamrik-sim)
  target_link_libraries(tamrik-sim PRIVATE CLI11::CLI11)
endif()

# Generates the C interface reference from the method table and its hand-written notes.
# It also writes the result code reference from the table of result names.
add_executable(tamrik-docgen tools/docgen/main.cpp tools/docgen/CapiReference.cpp tools/docgen/ResultCodesPage.cpp
  tools/docgen/ServicesPage.cpp comserver/ResultNames.cpp)
target_include_directories(tamrik-docgen PRIVATE comserver)
add_custom_target(docs
  COMMAND tamrik-docgen capi > ${CMAKE_CURRENT_SOURCE_DIR}/docs/capi.md
  COMMAND tamrik-docgen result-codes > ${CMAKE_CURRENT_SOURCE_DIR}/docs/result-codes.md
  COMMAND tamrik-docgen services > ${CMAKE_CURRENT_SOURCE_DIR}/docs/services.md
  COMMENT "Regenerating docs/capi.md, docs/result-codes.md and docs/services.md")

# --- installation ----------------------------------------------------------------------------
target_include_directories(tamrik PUBLIC $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# The versioned library is the component "library"; the header, the unversioned link and what
# build systems read are "development" (cmake/Packaging.cmake makes a package of each).
install(TARGETS tamrik EXPORT tamrikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library)
install(FILES comserver/capi/tamrik.h ${CMAKE_CURRENT_BINARY_DIR}/include/tamrik_version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(TARGETS tamrik-tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# A component of their own, so that they can be installed (and checked) alone.
install(FILES ${TAMRIK_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool-manual)
install(FILES ${TAMRIK_COMPLETION} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  RENAME tamrik COMPONENT tool-manual)
if(TARGET tamrik-sim)
  set_target_properties(tamrik-sim PROPERTIES INSTALL_RPATH "${TAMRIK_INSTALL_RPATH}")
  install(TARGETS tamrik-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(FILES examples/kaVdmo.ini DESTINATION ${CMAKE_INSTALL_DATADIR}/tamrik)

install(EXPORT tamrikTargets NAMESPACE tamrik:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tamrik
  COMPONENT development)
configure_package_config_file(cmake/tamrikConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/tamrikConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tamrik)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tamrikConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tamrikConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/tamrikConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tamrik COMPONENT development)

# The pkg-config file finds its prefix from where it lies, so an installation can be moved
# (or made with cmake --install --prefix) and still be found.
file(RELATIVE_PATH TAMRIK_PC_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/tamrik.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tamrik.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tamrik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# --- tests -----------------------------------------------------------------------------------
if(TAMRIK_BUILD_TESTS)
  # The tool and the simulator program end to end, as subprocesses.
  tamrik_test_program(tamrik_cli_tests cli tamrik_sim)
  # The result-code test walks the code table itself against the generated page; the
  # tool's documents are read with the same JSON library that writes them.
  target_sources(tamrik_cli_tests PRIVATE comserver/ResultNames.cpp)
  target_link_libraries(tamrik_cli_tests PRIVATE nlohmann_json::nlohmann_json)
  add_dependencies(tamrik_cli_tests tamrik-tool tamrik-sim tamrik-manual tamrik-docgen)
  target_compile_definitions(tamrik_cli_tests PRIVATE
    TAMRIK_TOOL="$<TARGET_FILE:tamrik-tool>"
    TAMRIK_SIM_PROGRAM="$<TARGET_FILE:tamrik-sim>"
    TAMRIK_DOCGEN="$<TARGET_FILE:tamrik-docgen>"
    TAMRIK_CMAKE="${CMAKE_COMMAND}"
    TAMRIK_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}"
    TAMRIK_VERSION="${PROJECT_VERSION}"
    TAMRIK_SOURCE_DIR="${CMAKE_CURRENT_SOURCE_DIR}")

  # docs/ pages generated from the code must match what the code generates now.
  add_test(NAME docs_up_to_date
    COMMAND ${CMAKE_COMMAND} -DDOCGEN=$<TARGET_FILE:tamrik-docgen>
            -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR} -P ${CMAKE_CURRENT_SOURCE_DIR}/tests/package/CheckDocs.cmake)

  # Install into a temporary prefix and build a host program against it both ways.
  add_test(NAME package_install_and_use
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tests/package/install_and_use.sh ${CMAKE_CURRENT_BINARY_DIR}
            ${CMAKE_CURRENT_SOURCE_DIR}/tests/package/host)
  set_tests_properties(package_install_and_use PROPERTIES TIMEOUT 300)
endif()
