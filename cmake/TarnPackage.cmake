# Packages by CPack, as scripts/package.sh makes them: libtarn-oneapi1, libtarn-oneapi-dev and tarn for Debian, and one
# archive with all of it.

set(CPACK_PACKAGE_NAME tarn-oneapi)
set(CPACK_PACKAGE_VENDOR "Tarn.oneAPI")
set(CPACK_PACKAGE_CONTACT "Tarn.oneAPI maintainers <maintainers@tarn-oneapi.example>")
set(CPACK_PACKAGE_INSTALL_DIRECTORY tarn-oneapi)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_COMPONENTS_ALL library development tool)

# glibc's loader looks first into these folders where the machine has such a processor.
set(TARN_VARIANTS "" CACHE STRING "Levels of x86-64, such as v3, whose library is packaged along; its build is beside this one")
foreach(level IN LISTS TARN_VARIANTS)
  install(FILES "${CMAKE_BINARY_DIR}-${level}/lib/libTarn.oneAPI.so.1"
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/glibc-hwcaps/x86-64-${level} COMPONENT library)
endforeach()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtarn-oneapi1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# CPack would list the library once for each variant.
file(WRITE "${CMAKE_BINARY_DIR}/debian/shlibs" "libTarn.oneAPI 1 libtarn-oneapi1 (>= ${PROJECT_VERSION})\n")
file(WRITE "${CMAKE_BINARY_DIR}/debian/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${CMAKE_BINARY_DIR}/debian/shlibs" "${CMAKE_BINARY_DIR}/debian/triggers")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "terrain simulation and rendering, library
Computations on height grids behind a plain C boundary: slope failure,
running water, sand in the wind, rocks, flow maps, light, meshes, stamps.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtarn-oneapi-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "terrain simulation and rendering, header
The header of Tarn.oneAPI, and what CMake and pkg-config find the library by.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tarn)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION science)
set(CPACK_COMPONENT_TOOL_DEPENDS library)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "terrain simulation and rendering, command-line tool
Reads height grids (GeoTIFF, PNG, HGT, ASC, OpenEXR), has Tarn.oneAPI work on
them and writes the results and pictures of them.")

# What Debian wants to find beside every package.
set(TARN_CHANGELOG "" CACHE FILEPATH "Compressed changelog in Debian's form, for the packages")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  if(TARN_CHANGELOG)
    install(FILES "${TARN_CHANGELOG}" DESTINATION ${folder} COMPONENT ${component})
    install(FILES cmake/debian/copyright DESTINATION ${folder} COMPONENT ${component})
  endif()
endforeach()
include(CPack)
