# The pages that script/doxygen makes of the public headers, and that it sees what is
# not documented. 77: no doxygen to be had on this host.
foreach(check pages member function text)
  add_test(NAME doxygen/${check}
    COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/doxygen/doxygen_test.sh" ${check}
      "${PROJECT_SOURCE_DIR}")
  set_tests_properties(doxygen/${check} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
endforeach()
