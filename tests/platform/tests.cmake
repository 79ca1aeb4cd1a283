vrxutil_test(platform utf8_test platform_common)
vrxutil_test(platform file_io_test platform_common)
vrxutil_test(platform xml_file_test)
vrxutil_test(platform logger_test)
vrxutil_test(platform configuration_test)
vrxutil_test(platform crypto_test)
vrxutil_test(platform copy_file_test)
vrxutil_test(platform host_model_test)
# With the plug-ins of system/tests.cmake.
vrxutil_test(platform load_library_test)
vrxutil_test(platform profile_string_test)

# Holds the source of its own, which the library hides.
vrxutil_test(platform log_line_test platform_common spdlog::spdlog)
target_sources(platform_log_line_test PRIVATE
  "${PROJECT_SOURCE_DIR}/platform/vrxcomn/log_line.cpp")

# Holds the source of the lock, which the library hides.
vrxutil_test(platform profile_string_writers_test platform_common)
target_sources(platform_profile_string_writers_test PRIVATE
  "${PROJECT_SOURCE_DIR}/platform/zulral/profile_lock.cpp")
