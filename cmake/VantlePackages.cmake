# Debian packages from the install components, by cpack; scripts/package builds and tries them.
#
# Base: libvantle<version> and libvantle-dev; parts have packages of their own, where they are built. What each depends
# on is found from what its libraries link; development files depend on the libraries of the same version.
set(VANTLE_PACKAGE_CONTACT "Vantle developers <vantle@example.org>" CACHE STRING "Who keeps the Debian packages")

set(version "${PROJECT_VERSION}-1")
set(abi "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantle)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGE_CONTACT "${VANTLE_PACKAGE_CONTACT}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_COMPONENTS_ALL)

file(WRITE "${PROJECT_BINARY_DIR}/packages/triggers" "activate-noawait ldconfig\n")
# Modules are compiled when they are installed, and what that left is removed with them.
foreach(script postinst prerm)
  set(line "if command -v py3clean >/dev/null; then py3clean -p \"$DPKG_MAINTSCRIPT_PACKAGE\"; fi")
  if(script STREQUAL "postinst")
    set(line "if [ \"$1\" = configure ] && command -v py3compile >/dev/null; then py3compile -p \"$DPKG_MAINTSCRIPT_PACKAGE\"; fi")
  endif()
  file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/packages/${script}" CONTENT "#!/bin/sh\nset -e\n${line}\n" @ONLY)
endforeach()

# vantle_package(<component> <package> <section> <summary> <description> [<dependency>...]): this component as a package.
# A dependency on another of our packages is one on the same version of it.
macro(vantle_package component package section summary description)
  string(TOUPPER "${component}" upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME "${package}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION "${section}")
  # The first line is the summary.
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}")
  set(dependencies ${ARGN})
  list(TRANSFORM dependencies REPLACE "(vantle[^ ]*)$" "\\1 (= ${version})")
  list(JOIN dependencies ", " CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS)
  if("${section}" STREQUAL "libs")
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${PROJECT_BINARY_DIR}/packages/triggers")
  elseif("${section}" STREQUAL "python")
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
      "${PROJECT_BINARY_DIR}/packages/postinst;${PROJECT_BINARY_DIR}/packages/prerm")
  endif()
  install(FILES "${changes}.gz" "${PROJECT_BINARY_DIR}/packages/changelog.gz"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}" COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # or that of SOURCE_DATE_EPOCH
set(changes "${PROJECT_BINARY_DIR}/packages/changelog.Debian")
file(WRITE "${changes}" "vantle (${version}) unstable; urgency=medium\n\n  * Packages of version ${PROJECT_VERSION}.\n\n\
 -- ${VANTLE_PACKAGE_CONTACT}  ${date}\n")
configure_file("${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${PROJECT_BINARY_DIR}/packages/changelog" COPYONLY)
find_program(VANTLE_GZIP gzip REQUIRED)
mark_as_advanced(VANTLE_GZIP)
execute_process(COMMAND "${VANTLE_GZIP}" -9nf "${changes}" "${PROJECT_BINARY_DIR}/packages/changelog"
  COMMAND_ERROR_IS_FATAL ANY)

set(about "Bounding boxes, value ranges, contours, slices, location and sampling,\n\
resampling, derivatives, curve and surface measures of multi-block grids\n\
over time, with blocks that touch as one grid.")
vantle_package(runtime libvantle${abi} libs "operations on multi-block grids for visualization" "${about}")
vantle_package(development libvantle-dev libdevel "operations on multi-block grids (development files)"
  "${about}\n.\nHeaders, and the files for CMake and pkg-config." libvantle${abi})
if(TARGET VantleParallel)
  vantle_package(parallel-runtime libvantle-parallel${abi} libs "operations on multi-block grids over MPI"
    "${about}\n.\nThe same answers on many machines." libvantle${abi})
  vantle_package(parallel-development libvantle-parallel-dev libdevel
    "operations on multi-block grids over MPI (development files)" "${about}\n.\nHeaders for many machines."
    libvantle-parallel${abi} libvantle-dev libopenmpi-dev)
endif()
if(TARGET VantleVTK)
  vantle_package(vtk-runtime libvantle-vtk${abi} libs "multi-block grids from and to objects of VTK"
    "${about}\n.\nConversion of data sets of VTK." libvantle${abi})
  vantle_package(vtk-development libvantle-vtk-dev libdevel
    "multi-block grids from and to objects of VTK (development files)" "${about}\n.\nHeaders for callers of VTK."
    libvantle-vtk${abi} libvantle-dev libvtk9-dev)
endif()
if(TARGET VantlePython)
  # An extension module is for one minor version of the interpreter.
  execute_process(COMMAND "${Python_EXECUTABLE}" -c
    "from sys import version_info as v; print(f'python3 (>= 3.{v[1]}~);python3 (<< 3.{v[1] + 1})')"
    OUTPUT_VARIABLE interpreter OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  vantle_package(python python3-vantle python "operations on multi-block grids from Python"
    "${about}\n.\nThe module vantle for Python 3, with NumPy arrays in and out." libvantle${abi} ${interpreter} python3-numpy)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-matplotlib, python3-vtk9 | paraview")
endif()
if(TARGET VantlePythonParallel)
  vantle_package(python-parallel python3-vantle-parallel python "operations on multi-block grids over MPI from Python"
    "${about}\n.\nThe class vantle.ParallelDataSet, for communicators of mpi4py." python3-vantle libvantle-parallel${abi}
    ${interpreter} python3-mpi4py)
endif()
include(CPack)
