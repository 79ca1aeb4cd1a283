# Run by CPack on what it has installed for the packages, before it packs that.
file(GLOB manuals "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*")
foreach(manual IN LISTS manuals)
  execute_process(COMMAND gzip --best --no-name "${manual}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
