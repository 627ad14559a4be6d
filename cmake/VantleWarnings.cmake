# Warnings for everything below the directory that includes this. Consumers of the installed targets get none of it.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(VANTLE_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
  endif()
endif()
