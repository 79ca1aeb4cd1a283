# The sample agent: what script/demo shows, and what it leaves out.
if(TARGET agent)
  vrxutil_test(examples agent_test)
  target_sources(examples_agent_test PRIVATE
    "${PROJECT_SOURCE_DIR}/examples/agent/checksum.cpp"
    "${PROJECT_SOURCE_DIR}/examples/agent/messages.cpp")
  target_compile_definitions(examples_agent_test PRIVATE
    AGENT_PROGRAM="$<TARGET_FILE:agent>"
    AGENT_CATALOGUES="$<TARGET_FILE_DIR:agent>/catalogues"
    AGENT_LOCALES="${VRXUTIL_LOCALES}"
    AGENT_PLUG_INS="$<TARGET_FILE_DIR:line_counter>"
    AGENT_BAD_PLUG_INS="$<TARGET_FILE_DIR:unruly_plug_in>")
  add_dependencies(examples_agent_test agent unruly_plug_in no_plug_in)

  # Libraries that the agent must get along with, in the folder `plug_ins`.
  foreach(name unruly_plug_in no_plug_in)
    add_library(${name} MODULE examples/${name}.cpp)
    vrxutil_target_settings(${name})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/include")
    set_target_properties(${name} PROPERTIES
      LIBRARY_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/plug_ins"
      SUFFIX "${CMAKE_SHARED_LIBRARY_SUFFIX}")
  endforeach()

endif()

# The sample counter.
if(TARGET shared_counter)
  vrxutil_test(examples shared_counter_test)
  target_compile_definitions(examples_shared_counter_test PRIVATE
    COUNTER_PROGRAM="$<TARGET_FILE:shared_counter>"
    FOREIGN_PROCESS="$<TARGET_FILE:lock_foreign_process>"
    OWN_PROCESS="$<TARGET_FILE:lock_own_process>")
  add_dependencies(examples_shared_counter_test shared_counter)
endif()

if(TARGET agent AND TARGET shared_counter AND TARGET vrxtool)
  add_test(NAME examples/demo COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/examples/demo_test.sh"
    "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}")
  set_tests_properties(examples/demo PROPERTIES TIMEOUT 300)
endif()

# The sample logger.
if(TARGET syslog_logger)
  vrxutil_test(examples syslog_logger_test)
  target_sources(examples_syslog_logger_test PRIVATE
    "${PROJECT_SOURCE_DIR}/examples/syslog_logger/syslog_logger.cpp")
  target_compile_definitions(examples_syslog_logger_test PRIVATE
    SYSLOG_PROGRAM="$<TARGET_FILE:syslog_logger>")
  add_dependencies(examples_syslog_logger_test syslog_logger)
endif()
