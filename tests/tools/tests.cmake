# The tool, each family of its commands by a program.
if(TARGET vrxtool)
  foreach(subject IN ITEMS base64_command command_line crypt_command host_command ini_command
      lock_command match_command record_command version_command xml_command)
    vrxutil_test(tools ${subject}_test)
    target_compile_definitions(tools_${subject}_test PRIVATE
      VRXTOOL_FOLDER="$<TARGET_FILE_DIR:vrxtool>")
    add_dependencies(tools_${subject}_test vrxtool)
  endforeach()

  # With the world of the locks' own tests, and their processes.
  target_compile_definitions(tools_lock_command_test PRIVATE
    FOREIGN_PROCESS="$<TARGET_FILE:lock_foreign_process>"
    OWN_PROCESS="$<TARGET_FILE:lock_own_process>")
endif()
