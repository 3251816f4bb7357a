# `message_checks`: what is done to messages and lists of ranges, with the sources of the program that take them.
find_package(nlohmann_json 3 REQUIRED CONFIG)
find_package(Threads REQUIRED)
find_library(LIBZSTD zstd REQUIRED)
set(message_sources base/Interrupt.cpp remote/Channel.cpp remote/Messages.cpp remote/Pieces.cpp base/Text.cpp
  work/RangeList.cpp)
list(TRANSFORM message_sources PREPEND ${PROJECT_SOURCE_DIR}/tools/)
add_library(message_checks STATIC ${CMAKE_CURRENT_LIST_DIR}/Messages.cpp ${message_sources})
target_include_directories(message_checks PUBLIC ${PROJECT_SOURCE_DIR}/tools)
target_link_libraries(message_checks PUBLIC kelvane::kelvane nlohmann_json::nlohmann_json Threads::Threads ${LIBZSTD})
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(message_checks PRIVATE -Wno-restrict) # as the program has it
endif()
