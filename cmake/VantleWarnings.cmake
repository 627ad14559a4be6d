# Warnings for everything below the directory that includes this. Consumers of the installed targets get none of it.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  # GCC 12, optimising, takes "text" + std::string for an overlapping copy (its bug 105651).
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    add_compile_options(-Wno-restrict)
  endif()
  if(VANTLE_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
  endif()
endif()
