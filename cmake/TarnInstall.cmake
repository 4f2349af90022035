# Installation: the library, its header, a CMake package and a pkg-config file.

include(CMakePackageConfigHelpers)

install(TARGETS Tarn.oneAPI EXPORT TarnOneAPITargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(FILES include/tarn/oneapi.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TarnOneAPI)
install(EXPORT TarnOneAPITargets NAMESPACE Tarn:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/TarnOneAPIConfig.cmake.in "${CMAKE_BINARY_DIR}/TarnOneAPIConfig.cmake"
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/TarnOneAPIConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_BINARY_DIR}/TarnOneAPIConfig.cmake" "${CMAKE_BINARY_DIR}/TarnOneAPIConfigVersion.cmake"
        DESTINATION ${package_dir} COMPONENT development)

file(RELATIVE_PATH prefix_from_package "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" /prefix)
configure_file(cmake/tarn-oneapi.pc.in "${CMAKE_BINARY_DIR}/tarn-oneapi.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/tarn-oneapi.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
