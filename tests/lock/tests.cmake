# Processes that share locks with the tests: one without the library, one with it.
add_executable(lock_foreign_process lock/foreign_process.c)
target_compile_options(lock_foreign_process PRIVATE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  $<$<BOOL:${VRXUTIL_WERROR}>:-Werror>)

add_executable(lock_own_process lock/own_process.cpp)
vrxutil_target_settings(lock_own_process)
target_link_libraries(lock_own_process PRIVATE test_support)

vrxutil_test(lock inter_process_lock_test)
vrxutil_test(lock lock_status_test)
vrxutil_test(lock read_write_sync_test)
vrxutil_test(lock unix_lock_test)

foreach(test IN ITEMS lock_inter_process_lock_test lock_lock_status_test
    lock_unix_lock_test)
  target_compile_definitions(${test} PRIVATE
    FOREIGN_PROCESS="$<TARGET_FILE:lock_foreign_process>"
    OWN_PROCESS="$<TARGET_FILE:lock_own_process>")
  add_dependencies(${test} lock_foreign_process lock_own_process)
endforeach()

# The torture of the locks between processes: a twentieth of what they stand in all, and
# less with sanitizers.
add_executable(lock_torture lock/lock_torture.cpp)
vrxutil_target_settings(lock_torture)
target_link_libraries(lock_torture PRIVATE test_support)
target_compile_definitions(lock_torture PRIVATE
  FOREIGN_PROCESS="$<TARGET_FILE:lock_foreign_process>"
  OWN_PROCESS="$<TARGET_FILE:lock_own_process>")
add_dependencies(lock_torture lock_foreign_process)

# lock_torture_test(NAME MODE COUNT [ENVIRONMENT...])
function(lock_torture_test name mode count)
  if(VRXUTIL_SANITIZE)
    math(EXPR count "${count} / 10")
  endif()
  add_test(NAME lock/torture.${name} COMMAND lock_torture ${mode} ${count})
  set_tests_properties(lock/torture.${name} PROPERTIES
    ENVIRONMENT "${ARGN}"
    PROCESSORS 2
    SKIP_RETURN_CODE 77
    TIMEOUT 600)
endfunction()

lock_torture_test(cycles_in_memory cycles 50000)
lock_torture_test(cycles_on_disk cycles 50000 "LOCK_TORTURE_FOLDER=${CMAKE_CURRENT_BINARY_DIR}")
lock_torture_test(steady steady 500000)
lock_torture_test(kills kills 100)
lock_torture_test(foreign foreign 10000)
