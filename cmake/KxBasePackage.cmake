# The base library as a CMake package: `cmake --install` puts libkxbase, its
# headers and lib/cmake/kxbase/ under the prefix (install component "dev"),
# and another project uses it with find_package(kxbase CONFIG) and kx::base.
include(CMakePackageConfigHelpers)

set(_kx_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kxbase)
install(TARGETS kxbase EXPORT kxbaseTargets COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The platform folders' headers are the platform code's own.
set(_src ${PROJECT_SOURCE_DIR})
file(GLOB _kx_headers CONFIGURE_DEPENDS ${_src}/base/log/*.h ${_src}/base/osal/*.h ${_src}/base/sysdef/*.h
     ${_src}/basestd/src/tools/*.h)
install(FILES ${_kx_headers} DESTINATION ${KX_BASE_INCLUDEDIR} COMPONENT dev)

install(EXPORT kxbaseTargets NAMESPACE kx:: DESTINATION ${_kx_cmake_dir} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kxbaseConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/kxbaseConfig.cmake
                              INSTALL_DESTINATION ${_kx_cmake_dir})
# A new major version of the project may change the headers incompatibly.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kxbaseConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kxbaseConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/kxbaseConfigVersion.cmake
        DESTINATION ${_kx_cmake_dir} COMPONENT dev)
