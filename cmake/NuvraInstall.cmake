# Install rules, the CMake package (nuvra::nuvra), the pkg-config file and the Debian package.
# Included from the top-level CMakeLists.txt when NUVRA_INSTALL is on.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(NUVRA_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/nuvra")

install(TARGETS nuvra EXPORT nuvraTargets
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
if(TARGET nuvra-guid)
    install(TARGETS nuvra-guid RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
    install(FILES "${PROJECT_SOURCE_DIR}/tool/nuvra-guid.1"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
endif()

# Every public header; internal/ holds what only the library uses, testing/ and *_test_util.h
# what only the tests use.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/nuvra/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/nuvra"
    FILES_MATCHING PATTERN "*.h"
    PATTERN "internal" EXCLUDE
    PATTERN "testing" EXCLUDE
    PATTERN "*_test_util.h" EXCLUDE)

install(FILES "${PROJECT_BINARY_DIR}/include/nuvra/version.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/nuvra")

install(EXPORT nuvraTargets NAMESPACE nuvra:: DESTINATION "${NUVRA_CMAKE_DIR}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/nuvraConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/nuvraConfig.cmake"
    INSTALL_DESTINATION "${NUVRA_CMAKE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/nuvraConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/nuvraConfig.cmake"
    "${PROJECT_BINARY_DIR}/nuvraConfigVersion.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/NuvraLinkTargets.cmake"
    DESTINATION "${NUVRA_CMAKE_DIR}")

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
install(FILES "${PROJECT_BINARY_DIR}/nuvra.pc" DESTINATION "${NUVRA_PC_DIR}")

# cpack -G DEB: one package with the tool, the library, its headers and build files. The
# tool is static; the headers and the archive need the dependencies' development packages.
set(CPACK_PACKAGE_NAME "nuvra")
set(CPACK_PACKAGE_VENDOR "nuvra maintainers")
set(CPACK_PACKAGE_CONTACT "nuvra maintainers <maintainers@nuvra.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "C++ runtime library and nuvra-guid, which prints one freshly generated GUID")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "libdevel")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "uuid-dev, libssl-dev (>= 3.0), libboost-regex-dev (>= 1.74)")
include(CPack)
