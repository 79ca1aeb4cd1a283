vrxutil_test(linux log_test)
vrxutil_test(linux trace_test)
vrxutil_test(linux log_allocation_test)
vrxutil_test(linux thread_end_test)

# Holds the log front end once more, without assertions, in the library's place.
vrxutil_test(linux log_without_assertions_test)
target_sources(linux_log_without_assertions_test PRIVATE
  "${PROJECT_SOURCE_DIR}/linux/log.cpp"
  "${PROJECT_SOURCE_DIR}/linux/spare_text.cpp")
target_compile_definitions(linux_log_without_assertions_test PRIVATE NDEBUG)
