vrxutil_test(binary buffer_test)
vrxutil_test(binary byte_order_test ${CMAKE_DL_LIBS})
