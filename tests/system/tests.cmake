vrxutil_test(system crypt_wrap_test)
