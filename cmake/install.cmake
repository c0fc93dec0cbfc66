# SPDX-License-Identifier: MIT
# The installed set: header, shared object, linker script under the development name,
# pkg-config file, CMake package; the tools with their pages and the manual install from their own folders.

install(TARGETS qzlib
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
install(FILES include/qzlib.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# libqzlib.so is a linker script that names the object and libcjson, so that -lqzlib alone
# is enough for a daemon that calls cJSON functions.
if(QZLIB_FOLD_CJSON)
    set(QZLIB_LINKER_INPUT "libqzlib.so.${PROJECT_VERSION_MAJOR}")
    set(QZLIB_PC_REQUIRES "")
    set(QZLIB_CMAKE_DEPENDENCY "")
    set(QZLIB_CMAKE_LINKS "")
else()
    set(QZLIB_LINKER_INPUT "libqzlib.so.${PROJECT_VERSION_MAJOR} AS_NEEDED ( -lcjson )")
    set(QZLIB_PC_REQUIRES "libcjson")
    set(QZLIB_CMAKE_DEPENDENCY "find_dependency(cJSON)")
    set(QZLIB_CMAKE_LINKS "cjson")
endif()
configure_file(packaging/libqzlib.so.in ${CMAKE_BINARY_DIR}/packaging/libqzlib.so @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/libqzlib.so DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The prefix is that of `cmake --install`, wherever it is: the files find it relative to themselves.
file(RELATIVE_PATH QZLIB_PC_PREFIX
    ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(packaging/qzlib.pc.in ${CMAKE_BINARY_DIR}/packaging/qzlib.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/qzlib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(QZLIB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qzlib)
configure_package_config_file(cmake/qzlib-config.cmake.in ${CMAKE_BINARY_DIR}/packaging/qzlib-config.cmake
    INSTALL_DESTINATION ${QZLIB_CMAKE_DIR}
    PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/qzlib-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/qzlib-config.cmake
              ${CMAKE_BINARY_DIR}/packaging/qzlib-config-version.cmake
        DESTINATION ${QZLIB_CMAKE_DIR})
