# The pages of docs/: the programs and records that they show.
vrxutil_test(documentation records_test)
target_compile_definitions(documentation_records_test PRIVATE SOURCE_FOLDER="${PROJECT_SOURCE_DIR}")

if(TARGET guide)
  file(GLOB pages CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}"
    "${PROJECT_SOURCE_DIR}/*.md" "${PROJECT_SOURCE_DIR}/docs/*.md")
  set(faults program output log source start end link heading index)
  if(TARGET vrxtool)
    list(APPEND faults commands)
  else()
    list(REMOVE_ITEM pages docs/tool.md)
  endif()
  foreach(page IN LISTS pages)
    add_test(NAME documentation/${page}
      COMMAND "${PROJECT_SOURCE_DIR}/script/docs" "${CMAKE_BINARY_DIR}" ${page})
  endforeach()
  foreach(fault IN LISTS faults)
    add_test(NAME documentation/faulty-${fault}
      COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/documentation/docs_test.sh" ${fault}
        "${PROJECT_SOURCE_DIR}" "${CMAKE_BINARY_DIR}")
  endforeach()
endif()
