vrxutil_test(binary buffer_test test_memory_shortage)
vrxutil_test(binary byte_order_test ${CMAKE_DL_LIBS})
vrxutil_test(binary binary_stream_test test_memory_shortage)
vrxutil_test(binary base64_test test_memory_shortage)

# Holds Base64 once more, without vector instructions, in the library's place.
vrxutil_test(binary base64_portable_test test_memory_shortage ${CMAKE_DL_LIBS})
target_sources(binary_base64_portable_test PRIVATE
  binary/base64_test.cpp
  "${PROJECT_SOURCE_DIR}/binary/base64.cpp"
  "${PROJECT_SOURCE_DIR}/binary/base64_bulk.cpp")
target_compile_definitions(binary_base64_portable_test PRIVATE VRXUTIL_NO_AVX2)
