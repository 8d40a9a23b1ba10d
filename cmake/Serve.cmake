# `tamrik serve`: the service library (gateway pollers, state, MQTT bridge, HTTP interface),
# the tool's serve command and the service's tests.
find_package(PkgConfig REQUIRED)
pkg_check_modules(TOMLPLUSPLUS REQUIRED IMPORTED_TARGET tomlplusplus)
pkg_check_modules(LIBMOSQUITTO REQUIRED IMPORTED_TARGET libmosquitto)
pkg_check_modules(CPP_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
find_package(nlohmann_json 3 REQUIRED)

add_library(tamrik_serve STATIC
  serve/Address.cpp serve/Config.cpp serve/State.cpp serve/Poller.cpp serve/PollerReads.cpp serve/Mqtt.cpp serve/MqttLoop.cpp serve/Events.cpp
  serve/Metrics.cpp serve/Http.cpp serve/Service.cpp serve/Scheduler.cpp)
target_include_directories(tamrik_serve PUBLIC serve)
# The gateways are reached through the C interface only; the result codes and the text
# conversion are the codec's header-level helpers.
target_link_libraries(tamrik_serve
  PUBLIC tamrik nlohmann_json::nlohmann_json
  PRIVATE tamrik_codec PkgConfig::TOMLPLUSPLUS PkgConfig::LIBMOSQUITTO PkgConfig::CPP_HTTPLIB pthread)

target_sources(tamrik-tool PRIVATE cli/CommandsServe.cpp)
target_link_libraries(tamrik-tool PRIVATE tamrik_serve)

# The page comes from the page's own build step when it is there; until then the service
# serves its interface without a page. Decided at the end of the configuration, so that the
# order of the includes does not matter.
function(tamrik_serve_web_assets)
  if(COMMAND tamrik_embed_web_assets)
    tamrik_embed_web_assets(tamrik_serve)
  else()
    set(fallback ${CMAKE_CURRENT_BINARY_DIR}/serve/NoWebAssets.cpp)
    file(WRITE ${fallback} "#include \"WebAssets.h\"\nnamespace tamrik::serve {\n"
         "const WebAsset* FindWebAsset(std::string_view) { return nullptr; }\n}\n")
    target_sources(tamrik_serve PRIVATE ${fallback})
  endif()
endfunction()
cmake_language(DEFER CALL tamrik_serve_web_assets)

if(TAMRIK_BUILD_TESTS)
  # The service end to end: the tool as a subprocess against simulators of the test's own,
  # and Debian's mosquitto started by the tests on loopback.
  tamrik_test_program(tamrik_serve_tests serve tamrik_serve tamrik_sim)
  if(TARGET tamrik_serve_tests)
    target_link_libraries(tamrik_serve_tests PRIVATE PkgConfig::LIBMOSQUITTO PkgConfig::CPP_HTTPLIB)
    add_dependencies(tamrik_serve_tests tamrik-tool)
    find_program(TAMRIK_MOSQUITTO mosquitto PATHS /usr/sbin)
    target_compile_definitions(tamrik_serve_tests PRIVATE
      TAMRIK_TOOL="$<TARGET_FILE:tamrik-tool>" TAMRIK_MOSQUITTO="${TAMRIK_MOSQUITTO}")
  endif()
endif()
