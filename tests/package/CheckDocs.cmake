# The generated pages of docs/ must be what the code generates now: run with
# -DDOCGEN=... -DSOURCE_DIR=...; fails with the name of the stale page.
foreach(page capi result-codes services)
  execute_process(COMMAND ${DOCGEN} ${page} OUTPUT_VARIABLE generated RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "generating docs/${page}.md failed: ${status}")
  endif()
  file(READ ${SOURCE_DIR}/docs/${page}.md committed)
  if(NOT generated STREQUAL committed)
    message(FATAL_ERROR "docs/${page}.md is stale: run 'cmake --build <build> --target docs' and commit it")
  endif()
endforeach()
