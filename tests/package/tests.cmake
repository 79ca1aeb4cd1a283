# The installed package. A program without sanitizers cannot use libraries with
# them.
if(NOT VRXUTIL_SANITIZE)
  set(package_root "${CMAKE_BINARY_DIR}/package-root")
  add_test(NAME package/Install
    COMMAND "${CMAKE_COMMAND}" --install "${CMAKE_BINARY_DIR}" --prefix "${package_root}")
  set_tests_properties(package/Install PROPERTIES FIXTURES_SETUP package_root)
  foreach(check headers cmake pkgconfig libraries)
    add_test(NAME package/${check}
      COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/package/package_test.sh" ${check} "${package_root}"
        "${PROJECT_SOURCE_DIR}")
    set_tests_properties(package/${check} PROPERTIES
      FIXTURES_REQUIRED package_root TIMEOUT 300)
  endforeach()
endif()
