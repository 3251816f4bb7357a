# What the documents show is tested: the ```cpp blocks of a document, put together in order, are one program, which is
# built and must end with 0; the ```console blocks must print what they say.

foreach(document README.md docs/guide.md)
  cmake_path(GET document STEM name)
  set(directory ${CMAKE_CURRENT_BINARY_DIR}/documents/${name})
  file(MAKE_DIRECTORY ${directory})
  add_custom_command(
    OUTPUT ${directory}/program.cpp
    COMMAND awk "/^```cpp$/ { code = 1; print \"#line \" NR + 1 \" \\\"${document}\\\"\"; next } /^```$/ { code = 0 } code"
      ${PROJECT_SOURCE_DIR}/${document} > ${directory}/program.cpp
    DEPENDS ${PROJECT_SOURCE_DIR}/${document}
    VERBATIM)
  add_executable(document_${name} ${directory}/program.cpp)
  target_link_libraries(document_${name} PRIVATE kelvane::kelvane)
  add_test(NAME document_${name} COMMAND document_${name} WORKING_DIRECTORY ${directory})
endforeach()

if(TARGET kelvane-hash)
  add_test(NAME document_transcripts COMMAND ${Python3_EXECUTABLE} -B ${PROJECT_SOURCE_DIR}/tests/docs_test.py
    ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/hash-file-format.md)
  set_tests_properties(document_transcripts PROPERTIES ENVIRONMENT_MODIFICATION
    "PATH=path_list_prepend:${PROJECT_SOURCE_DIR}/tests;PATH=path_list_prepend:$<TARGET_FILE_DIR:kelvane-hash>")
endif()
