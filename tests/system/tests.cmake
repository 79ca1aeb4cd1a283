# vrxutil_plug_in(NAME SOURCE): libNAME.so in the folder plug_in, made of plug_in/SOURCE.
function(vrxutil_plug_in name source)
  add_library(${name} MODULE system/plug_in/${source})
  vrxutil_target_settings(${name})
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/plug_in")
endfunction()

vrxutil_plug_in(test_plug_in plug_in.cpp)
target_compile_definitions(test_plug_in PRIVATE "PLUG_IN_VERSION=\"4.6.0.1234\"")
if(NOT APPLE)
  # A symbol whose address is null.
  target_link_options(test_plug_in PRIVATE -Wl,--defsym=plugInNothing=0)
endif()
vrxutil_plug_in(test_plug_in_old plug_in.cpp)
target_compile_definitions(test_plug_in_old PRIVATE "PLUG_IN_VERSION=\"4.5.65535.65535\"")
vrxutil_plug_in(test_plug_in_unresolved unresolved.cpp)

# vrxutil_uses_plug_ins(TARGET): has the plug-ins built for the test TARGET.
function(vrxutil_uses_plug_ins target)
  target_compile_definitions(${target} PRIVATE
    "PLUG_IN=\"$<TARGET_FILE:test_plug_in>\""
    "PLUG_IN_OLD=\"$<TARGET_FILE:test_plug_in_old>\""
    "PLUG_IN_UNRESOLVED=\"$<TARGET_FILE:test_plug_in_unresolved>\""
    "PLUG_IN_FOLDER=\"$<TARGET_FILE_DIR:test_plug_in>\"")
  add_dependencies(${target} test_plug_in test_plug_in_old test_plug_in_unresolved)
endfunction()

vrxutil_test(system crypt_wrap_test)
vrxutil_test(system host_test)
vrxutil_test(system host_query_test)
vrxutil_test(system library_test)
vrxutil_uses_plug_ins(system_library_test)
vrxutil_uses_plug_ins(platform_load_library_test)
vrxutil_test(system version_test)
vrxutil_test(system wildcard_test)
