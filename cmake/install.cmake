# `cmake --install`: the public headers, the layer libraries, a CMake package
# (find_package(zbiap CONFIG) gives zbiap::zbiap) and zbiap.pc. The development servers are not
# installed: they are for the zbiap tool and the tests, not for hosts.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_zbiap_layers foundation platform support receipt storekit store catalog manager)
set(_zbiap_targets zbiap)
foreach(_layer IN LISTS _zbiap_layers)
  list(APPEND _zbiap_targets zbiap_${_layer})
endforeach()

install(TARGETS ${_zbiap_targets} EXPORT zbiapTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zbiap DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h" PATTERN "devserver" EXCLUDE)

set(_zbiap_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zbiap)
install(EXPORT zbiapTargets NAMESPACE zbiap:: DESTINATION ${_zbiap_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zbiapConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/zbiapConfig.cmake
                              INSTALL_DESTINATION ${_zbiap_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zbiapConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zbiapConfig.cmake
              ${PROJECT_BINARY_DIR}/zbiapConfigVersion.cmake
        DESTINATION ${_zbiap_cmake_dir})

# zbiap.pc finds its prefix from its own place, so `cmake --install --prefix` anywhere works.
file(RELATIVE_PATH _zbiap_pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" _zbiap_pc_to_prefix "${_zbiap_pc_to_prefix}")
set(ZBIAP_PC_PREFIX "\${pcfiledir}/${_zbiap_pc_to_prefix}")
set(ZBIAP_PC_LIBS "")
foreach(_layer IN LISTS _zbiap_layers)
  # Each layer before the ones it needs, as a static link wants them.
  string(PREPEND ZBIAP_PC_LIBS "-lzbiap_${_layer} ")
endforeach()
string(STRIP "${ZBIAP_PC_LIBS}" ZBIAP_PC_LIBS)
configure_file(${PROJECT_SOURCE_DIR}/cmake/zbiap.pc.in ${PROJECT_BINARY_DIR}/zbiap.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zbiap.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
