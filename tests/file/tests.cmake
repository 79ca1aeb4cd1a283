vrxutil_test(file path_test)
