# What docs/formats.md shows, read from the page.
vrxutil_test(formats formats_test)
target_compile_definitions(formats_formats_test PRIVATE
  FORMATS_PAGE="${PROJECT_SOURCE_DIR}/docs/formats.md"
  FOREIGN_PROCESS="$<TARGET_FILE:lock_foreign_process>"
  OWN_PROCESS="$<TARGET_FILE:lock_own_process>")
add_dependencies(formats_formats_test lock_foreign_process lock_own_process)
if(TARGET agent)
  target_compile_definitions(formats_formats_test PRIVATE AGENT_PROGRAM="$<TARGET_FILE:agent>")
  add_dependencies(formats_formats_test agent)
endif()
