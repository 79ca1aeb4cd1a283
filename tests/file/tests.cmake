vrxutil_test(file path_test)
vrxutil_test(file file_test)
vrxutil_test(file file_index_test)
vrxutil_test(file filer_test)
