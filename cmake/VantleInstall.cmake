# Package files: find_package(Vantle) and pkg-config. Both are relocatable.
include(CMakePackageConfigHelpers)

set(packageDir "${CMAKE_INSTALL_LIBDIR}/cmake/Vantle")
install(EXPORT VantleTargets NAMESPACE Vantle:: DESTINATION "${packageDir}" COMPONENT development)
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/VantleConfig.cmake.in" "${PROJECT_BINARY_DIR}/VantleConfig.cmake"
  INSTALL_DESTINATION "${packageDir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/VantleConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/VantleConfig.cmake" "${PROJECT_BINARY_DIR}/VantleConfigVersion.cmake"
  DESTINATION "${packageDir}" COMPONENT development)

if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(pcPrefix "${CMAKE_INSTALL_PREFIX}")
  set(pcLibdir "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(pcIncludedir "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(pcPrefix "\${pcfiledir}/${up}")
  set(pcLibdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(pcIncludedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()

function(vantle_pkgconfig name description requires)
  string(TOLOWER ${name} lower)
  set(pcName ${name})
  set(pcDescription "${description}")
  set(pcRequires "${requires}")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/vantle.pc.in" "${PROJECT_BINARY_DIR}/vantle-${lower}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/vantle-${lower}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT development)
endfunction()

vantle_pkgconfig(Model "Data model for scientific visualization" "")
vantle_pkgconfig(BaseOp "Operations for scientific visualization" "vantle-model = ${PROJECT_VERSION}")
vantle_pkgconfig(DataSet "Data sets and their files for scientific visualization" "vantle-baseop = ${PROJECT_VERSION}")
