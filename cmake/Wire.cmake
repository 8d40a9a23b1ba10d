# Seeing the wire: the Wireshark dissector, made at build time from its Lua template and the
# codec's tables, the tool's decode command, and their tests.
include(GNUInstallDirs)

# --- the dissector ---------------------------------------------------------------------------
# The generator writes the frame layout, the service table and the check value's table into
# the template, so the dissector's names and codes are the driver's.
add_executable(tamrik-wiregen tools/wiregen/main.cpp)
target_include_directories(tamrik-wiregen PRIVATE cli)
target_link_libraries(tamrik-wiregen PRIVATE tamrik_codec)

set(TAMRIK_DISSECTOR ${CMAKE_CURRENT_BINARY_DIR}/wireshark/tamrik.lua)
add_custom_command(OUTPUT ${TAMRIK_DISSECTOR}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/wireshark
  COMMAND tamrik-wiregen ${CMAKE_CURRENT_SOURCE_DIR}/wireshark/tamrik.lua.in ${TAMRIK_DISSECTOR}
  DEPENDS tamrik-wiregen ${CMAKE_CURRENT_SOURCE_DIR}/wireshark/tamrik.lua.in
  COMMENT "Wireshark dissector from the service table")
add_custom_target(tamrik-dissector ALL DEPENDS ${TAMRIK_DISSECTOR})
# Wireshark's global folder for Lua plugins is lib/<arch>/wireshark/plugins of its prefix
# (`tshark -G folders` names it); a component of its own, so that it can be installed alone.
install(FILES ${TAMRIK_DISSECTOR} DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT wireshark)

# --- tamrik decode ---------------------------------------------------------------------------
target_sources(tamrik-tool PRIVATE cli/CommandsDecode.cpp cli/WireDecode.cpp)

# --- tests -----------------------------------------------------------------------------------
if(TAMRIK_BUILD_TESTS)
  # decode through the tool, on traces the tool writes itself and on hexadecimal bytes.
  tamrik_test_program(tamrik_wire_tests wire tamrik_codec)
  target_link_libraries(tamrik_wire_tests PRIVATE nlohmann_json::nlohmann_json)
  add_dependencies(tamrik_wire_tests tamrik-tool tamrik-sim tamrik-dissector)
  target_compile_definitions(tamrik_wire_tests PRIVATE TAMRIK_TOOL="$<TARGET_FILE:tamrik-tool>")

  # The dissector in tshark, on a capture of loopback traffic the test makes itself: the tool
  # against tamrik-sim with faults. Skipped (77) where capturing is not permitted.
  add_test(NAME wire_dissector_tshark
    COMMAND /usr/bin/python3 ${CMAKE_CURRENT_SOURCE_DIR}/tests/wire/dissector_test.py
            --tool $<TARGET_FILE:tamrik-tool> --sim $<TARGET_FILE:tamrik-sim> --dissector ${TAMRIK_DISSECTOR})
  set_tests_properties(wire_dissector_tshark PROPERTIES TIMEOUT 240 SKIP_RETURN_CODE 77)
endif()
