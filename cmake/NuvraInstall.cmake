# SPDX-License-Identifier: Apache-2.0
# Install rules, the CMake package (nuvra::nuvra), the pkg-config file, and the packages cpack
# makes. Included from the top-level CMakeLists.txt when NUVRA_INSTALL is on.
#
# Everything installed belongs to one of three components, which are also the Debian
# packages (see NuvraDebian.cmake):
#   tool     nuvra-guid and its manual page
#   runtime  the shared library, in shared builds
#   dev      headers, the static archive, the shared library's link name, the CMake package
#            and nuvra.pc

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(NUVRA_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/nuvra")

if(BUILD_SHARED_LIBS)
    install(TARGETS nuvra_shared EXPORT nuvraTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
    # The archive of a shared build comes as nuvra::nuvra_static, which find_package loads
    # (with the dependencies an archive needs) only when asked: COMPONENTS static.
    install(TARGETS nuvra_archive EXPORT nuvraStaticTargets
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
    install(EXPORT nuvraStaticTargets NAMESPACE nuvra:: DESTINATION "${NUVRA_CMAKE_DIR}"
        COMPONENT dev)
    set(NUVRA_PACKAGE_IS_STATIC OFF)
else()
    install(TARGETS nuvra_archive EXPORT nuvraTargets
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
    set(NUVRA_PACKAGE_IS_STATIC ON)
endif()
install(EXPORT nuvraTargets NAMESPACE nuvra:: DESTINATION "${NUVRA_CMAKE_DIR}" COMPONENT dev)

if(TARGET nuvra-guid)
    install(TARGETS nuvra-guid RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)
    # Manual pages are installed compressed, as man-db and Debian expect them.
    set(nuvra_man_page "${PROJECT_BINARY_DIR}/nuvra-guid.1.gz")
    add_custom_command(OUTPUT "${nuvra_man_page}"
        COMMAND gzip -9 -n -c "${PROJECT_SOURCE_DIR}/tool/nuvra-guid.1" > "${nuvra_man_page}"
        DEPENDS "${PROJECT_SOURCE_DIR}/tool/nuvra-guid.1"
        VERBATIM)
    add_custom_target(nuvra_man_page ALL DEPENDS "${nuvra_man_page}")
    install(FILES "${nuvra_man_page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tool)
endif()

# Every public header; internal/ holds what only the library uses, testing/ and *_test_util.h
# what only the tests use.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/nuvra/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/nuvra"
    COMPONENT dev
    FILES_MATCHING PATTERN "*.h"
    PATTERN "internal" EXCLUDE
    PATTERN "testing" EXCLUDE
    PATTERN "*_test_util.h" EXCLUDE)
install(FILES "${PROJECT_BINARY_DIR}/include/nuvra/version.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/nuvra" COMPONENT dev)

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/nuvraConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/nuvraConfig.cmake"
    INSTALL_DESTINATION "${NUVRA_CMAKE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/nuvraConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/nuvraConfig.cmake"
    "${PROJECT_BINARY_DIR}/nuvraConfigVersion.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/NuvraLinkTargets.cmake"
    DESTINATION "${NUVRA_CMAKE_DIR}" COMPONENT dev)

# pkg-config: a static archive must name its dependencies in Libs (pkg-config --libs leaves
# the private fields out unless asked for --static); a shared library keeps them private.
# The prefix is found from the .pc file's own place, so the tree can be moved.
set(NUVRA_PC_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH NUVRA_PC_PREFIX_FROM_PCDIR "/prefix/${NUVRA_PC_DIR}" "/prefix")
string(REGEX REPLACE "/$" "" NUVRA_PC_PREFIX_FROM_PCDIR "${NUVRA_PC_PREFIX_FROM_PCDIR}")
if(BUILD_SHARED_LIBS)
    set(NUVRA_PC_PRIVATE ".private")
    set(NUVRA_PC_PUBLIC_LIBS "-pthread")
    set(NUVRA_PC_PRIVATE_LIBS "-lboost_regex")
else()
    set(NUVRA_PC_PRIVATE "")
    set(NUVRA_PC_PUBLIC_LIBS "-lboost_regex -pthread")
    set(NUVRA_PC_PRIVATE_LIBS "")
endif()
configure_file("${PROJECT_SOURCE_DIR}/cmake/nuvra.pc.in" "${PROJECT_BINARY_DIR}/nuvra.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/nuvra.pc" DESTINATION "${NUVRA_PC_DIR}" COMPONENT dev)

include(NuvraDebian)
