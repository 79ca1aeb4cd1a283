vrxutil_test(ini ini_test)
vrxutil_test(ini ini2_parser_test)
vrxutil_test(ini ini2_test)
