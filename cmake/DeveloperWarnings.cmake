# Warnings are errors while kelvane itself is developed; projects that embed it never see these.
add_compile_options(-Wall -Wextra -Wconversion -Wshadow -Werror)
