# `cmake --install`: the public headers, the layer libraries, libzbiap.so, a CMake package
# (find_package(zbiap CONFIG) gives zbiap::zbiap, static, and zbiap::shared), zbiap.pc (the
# shared library) and zbiap-static.pc, and the zbiap tool. The development servers are not
# installed: they are for the zbiap tool and the tests, not for hosts.
#
# Components, one Debian package each (cmake/packages.cmake): runtime (libzbiap.so.1),
# development (headers, static libraries, CMake package, pkg-config files), tools (the CLI).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_zbiap_layers foundation platform support receipt storekit store catalog manager capi)
set(_zbiap_targets zbiap)
foreach(_layer IN LISTS _zbiap_layers)
  list(APPEND _zbiap_targets zbiap_${_layer})
endforeach()

install(TARGETS ${_zbiap_targets} EXPORT zbiapTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET zbiap_shared)
  install(TARGETS zbiap_shared EXPORT zbiapTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                  NAMELINK_COMPONENT development)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zbiap DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN "devserver" EXCLUDE)
if(TARGET zbiap_cli)
  install(TARGETS zbiap_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

set(_zbiap_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zbiap)
install(EXPORT zbiapTargets NAMESPACE zbiap:: DESTINATION ${_zbiap_cmake_dir}
        COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zbiapConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/zbiapConfig.cmake
                              INSTALL_DESTINATION ${_zbiap_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zbiapConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zbiapConfig.cmake
              ${PROJECT_BINARY_DIR}/zbiapConfigVersion.cmake
        DESTINATION ${_zbiap_cmake_dir} COMPONENT development)

# The .pc files find their prefix from their own place, so `cmake --install --prefix` anywhere
# works, and so does a package unpacked into a scratch directory.
file(RELATIVE_PATH _zbiap_pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" _zbiap_pc_to_prefix "${_zbiap_pc_to_prefix}")
set(ZBIAP_PC_PREFIX "\${pcfiledir}/${_zbiap_pc_to_prefix}")
set(ZBIAP_PC_LIBS "")
foreach(_layer IN LISTS _zbiap_layers)
  # Each layer before the ones it needs, as a static link wants them.
  string(PREPEND ZBIAP_PC_LIBS "-lzbiap_${_layer} ")
endforeach()
string(STRIP "${ZBIAP_PC_LIBS}" ZBIAP_PC_LIBS)
set(_zbiap_pc_files zbiap-static)
if(TARGET zbiap_shared)
  list(APPEND _zbiap_pc_files zbiap)
endif()
foreach(_pc IN LISTS _zbiap_pc_files)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${_pc}.pc.in ${PROJECT_BINARY_DIR}/${_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endforeach()
