# The installed package. A program without sanitizers cannot use libraries with
# them.
if(NOT VRXUTIL_SANITIZE)
  # package_check(CHECK): a test that runs this check of package_test.sh.
  function(package_check check)
    add_test(NAME package/${check}
      COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/package/package_test.sh" ${check}
        "${CMAKE_BINARY_DIR}/package-root" "${PROJECT_SOURCE_DIR}" "${CMAKE_BINARY_DIR}")
    set_tests_properties(package/${check} PROPERTIES TIMEOUT 300)
  endfunction()

  package_check(install)
  set_tests_properties(package/install PROPERTIES FIXTURES_SETUP package_root)
  foreach(check headers cmake pkgconfig readme libraries)
    package_check(${check})
    set_tests_properties(package/${check} PROPERTIES FIXTURES_REQUIRED package_root)
  endforeach()
endif()
