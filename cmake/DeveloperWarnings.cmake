# Warnings are errors while kelvane itself is developed; projects that embed it never see these. The sanitizers'
# instrumentation makes GCC warn of what is not there, so that there they are warnings only.
add_compile_options(-Wall -Wextra -Wconversion -Wshadow)
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  add_compile_options(-Werror)
endif()
