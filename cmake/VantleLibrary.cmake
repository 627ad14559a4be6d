include(GenerateExportHeader)

# vantle_library(<name> [PART <part>] [OWN <header>...]): the shared library Vantle::<name> from all sources below the
# current directory.
#
# Headers are public, are found relative to the root of the source tree, and must compile on their own, but for the own
# ones, which are not installed. The macro that exports a symbol is VANTLE_<NAME>_API, in <folder>/<name>Export.hpp.
#
# What needs more than the base does is a part: it is installed by components of its own, <part>-runtime and
# <part>-development beside the base's `runtime` and `development`, and its targets are in Vantle<name>Targets.cmake,
# which the package reads only for those who ask for the component <name>.
function(vantle_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "PART" "OWN")
  set(component "")
  set(export VantleTargets)
  if(arg_PART)
    set(component "${arg_PART}-")
    set(export Vantle${name}Targets)
  endif()
  set(target Vantle${name})
  string(TOUPPER ${name} upper)
  string(TOLOWER ${name} lower)
  get_filename_component(folder "${CMAKE_CURRENT_SOURCE_DIR}" NAME)

  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.hpp")
  foreach(own IN LISTS arg_OWN)
    list(REMOVE_ITEM headers "${CMAKE_CURRENT_SOURCE_DIR}/${own}")
  endforeach()
  if(NOT sources)
    set(sources "${CMAKE_CURRENT_BINARY_DIR}/empty.cpp")
    file(CONFIGURE OUTPUT "${sources}" CONTENT "")
  endif()

  set(generated "${PROJECT_BINARY_DIR}/include")
  set(exportHeader "${generated}/${folder}/${name}Export.hpp")

  add_library(${target} SHARED ${sources})
  add_library(Vantle::${name} ALIAS ${target})
  target_sources(${target}
    PUBLIC
      FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${headers}
      FILE_SET generated TYPE HEADERS BASE_DIRS "${generated}" FILES "${exportHeader}")
  set(version "\n#include <model/Version.hpp>\n") # says what is wrong where the language is older than C++20
  generate_export_header(${target}
    BASE_NAME vantle_${lower}
    EXPORT_FILE_NAME "${exportHeader}"
    EXPORT_MACRO_NAME VANTLE_${upper}_API
    NO_EXPORT_MACRO_NAME VANTLE_${upper}_LOCAL
    DEPRECATED_MACRO_NAME VANTLE_${upper}_DEPRECATED
    CUSTOM_CONTENT_FROM_VARIABLE version)

  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    INTERFACE_HEADER_SETS_TO_VERIFY HEADERS
    INSTALL_RPATH "$ORIGIN")
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PUBLIC Threads::Threads)

  if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    # Rounding is part of the behaviour, also in templates that a caller instantiates.
    target_compile_options(${target} PUBLIC -ffp-contract=off)
    # A symbol that only the layer above defines is an error here. Sanitizer runtimes are left open until a program links.
    if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
      target_link_options(${target} PRIVATE -Wl,-z,defs)
    endif()
  endif()

  install(TARGETS ${target}
    EXPORT ${export}
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
      COMPONENT ${component}runtime NAMELINK_COMPONENT ${component}development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT ${component}development
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT ${component}runtime
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/vantle" COMPONENT ${component}development
    FILE_SET generated DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/vantle" COMPONENT ${component}development)
  if(arg_PART)
    install(EXPORT ${export} NAMESPACE Vantle:: DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/Vantle"
      COMPONENT ${component}development)
  endif()
endfunction()
