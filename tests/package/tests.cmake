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

  # The Debian packages. 77: the host does not allow the check.
  find_program(DPKG dpkg)
  if(DPKG)
    # debian_check(NAME PROGRAM ARGUMENT)
    function(debian_check name program argument)
      add_test(NAME package/debian-${name}
        COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/package/${program}" ${argument}
          "${PROJECT_SOURCE_DIR}" "${CMAKE_BINARY_DIR}")
      # Making them is a whole build, and a Debian of its own comes from the network: they
      # are begun first.
      set_tests_properties(package/debian-${name} PROPERTIES
        TIMEOUT 1800 COST 1000 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED debian_packages)
    endfunction()

    foreach(check build contents dependencies lintian)
      debian_check(${check} deb_test.sh ${check})
    endforeach()
    set_tests_properties(package/debian-build PROPERTIES
      FIXTURES_REQUIRED "" FIXTURES_SETUP debian_packages)
    foreach(root empty debian)
      debian_check(life-in-${root} deb_life_test.sh ${root})
    endforeach()
  endif()
endif()

# What the libraries export, beside the record of it. 77: cannot be compared here.
add_test(NAME package/symbols
  COMMAND "${PROJECT_SOURCE_DIR}/script/abi" --symbols "${CMAKE_BINARY_DIR}")
add_test(NAME package/types
  COMMAND "${PROJECT_SOURCE_DIR}/script/abi" --types "${CMAKE_BINARY_DIR}")
foreach(change symbols types)
  add_test(NAME package/changed-${change}
    COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/package/abi_test.sh" ${change}
      "${PROJECT_SOURCE_DIR}" "${CMAKE_BINARY_DIR}")
endforeach()
set_tests_properties(package/symbols package/types package/changed-symbols package/changed-types
  PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
