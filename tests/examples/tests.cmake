# The sample agent: what script/demo shows, and what it leaves out.
if(TARGET agent)
  vrxutil_test(examples agent_test)
  target_sources(examples_agent_test PRIVATE "${PROJECT_SOURCE_DIR}/examples/agent/messages.cpp")
  target_compile_definitions(examples_agent_test PRIVATE
    AGENT_PROGRAM="$<TARGET_FILE:agent>"
    AGENT_CATALOGUES="$<TARGET_FILE_DIR:agent>/catalogues"
    AGENT_LOCALES="${VRXUTIL_LOCALES}")
  add_dependencies(examples_agent_test agent)

  add_test(NAME examples/demo
    COMMAND "${PROJECT_SOURCE_DIR}/script/demo" "$<TARGET_FILE:agent>")
  set_tests_properties(examples/demo PROPERTIES TIMEOUT 300)
endif()
