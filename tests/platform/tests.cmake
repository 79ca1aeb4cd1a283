vrxutil_test(platform utf8_test platform_common)
vrxutil_test(platform file_io_test platform_common)
vrxutil_test(platform xml_file_test)

foreach(name IN ITEMS logger_test configuration_test crypto_test)
  if(EXISTS "${CMAKE_CURRENT_LIST_DIR}/${name}.cpp")
    vrxutil_test(platform ${name})
  endif()
endforeach()
