# `message_checks`: what is done to messages and lists of ranges.
add_library(message_checks STATIC ${CMAKE_CURRENT_LIST_DIR}/Messages.cpp)
target_link_libraries(message_checks PUBLIC kelvane_tool)
