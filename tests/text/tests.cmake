vrxutil_test(text wide_string_test)
vrxutil_test(text text_conversion_test)
vrxutil_test(text field_format_test)
vrxutil_test(text number_allocation_test test_block_count)
vrxutil_test(text narrow_string_test)
vrxutil_test(text string_list_test)
vrxutil_test(text string_parser_test)

vrxutil_test(text localized_string_test)
vrxutil_catalogue(text_localized_string_test messages de_DE fr_FR)
target_compile_definitions(text_localized_string_test PRIVATE
  "VRXUTIL_TEST_LOCALES=\"${VRXUTIL_LOCALES}\""
  "VRXUTIL_TEST_CATALOGUES=\"${CMAKE_CURRENT_BINARY_DIR}/catalogues\""
  "VRXUTIL_TEST_GENCAT=\"${VRXUTIL_GENCAT}\"")
