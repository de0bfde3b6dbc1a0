# SPDX-License-Identifier: Apache-2.0
# cpack -G DEB: one Debian package per component, split the way Debian splits a library.
#   nuvra-guid    the tool (linked statically) and its manual page; depends on nothing
#   libnuvra<N>   the shared library (N: its SONAME version), with shlibs and the ldconfig
#                 trigger; only in shared builds
#   libnuvra-dev  headers, the static archive, the CMake package and nuvra.pc; depends on
#                 libnuvra<N> and on the development packages the archive and headers need
# The packages follow Debian's layout when the build is configured with the prefix /usr
# (the deb preset): libraries in the multiarch directory, and in each package's doc
# directory a copyright file and the Debian changelog.

set(nuvra_runtime_package "libnuvra${NUVRA_SOVERSION}")
set(nuvra_doc_packages nuvra-guid:tool libnuvra-dev:dev)
if(BUILD_SHARED_LIBS)
    list(APPEND nuvra_doc_packages ${nuvra_runtime_package}:runtime)
endif()

set(nuvra_changelog "${PROJECT_BINARY_DIR}/changelog.Debian.gz")
add_custom_command(OUTPUT "${nuvra_changelog}"
    COMMAND gzip -9 -n -c "${PROJECT_SOURCE_DIR}/cmake/debian/changelog" > "${nuvra_changelog}"
    DEPENDS "${PROJECT_SOURCE_DIR}/cmake/debian/changelog"
    VERBATIM)
add_custom_target(nuvra_debian_changelog ALL DEPENDS "${nuvra_changelog}")
foreach(entry IN LISTS nuvra_doc_packages)
    string(REPLACE ":" ";" entry "${entry}")
    list(GET entry 0 package)
    list(GET entry 1 component)
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/copyright" "${nuvra_changelog}"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}" COMPONENT ${component})
endforeach()
if(BUILD_SHARED_LIBS)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/debian/libnuvra.lintian-overrides.in"
        "${PROJECT_BINARY_DIR}/libnuvra.lintian-overrides" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/libnuvra.lintian-overrides"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" RENAME ${nuvra_runtime_package}
        COMPONENT runtime)
endif()
if(TARGET nuvra-guid)
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/nuvra-guid.lintian-overrides"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" RENAME nuvra-guid
        COMPONENT tool)
endif()

set(CPACK_PACKAGE_NAME "nuvra")
set(CPACK_PACKAGE_VENDOR "The nuvra Authors")
set(CPACK_PACKAGE_CONTACT "nuvra maintainers <maintainers@nuvra.invalid>")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "nuvra runtime library and tool")
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE "nuvra")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME "nuvra-guid")
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION "utils")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "print one freshly generated GUID
nuvra-guid asks the system UUID generator for a new 128-bit identifier and
prints it as 36 lower-case hexadecimal characters in the 8-4-4-4-12
grouping, with the first three groups in GUID storage order. It takes no
options and reads no input.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${nuvra_runtime_package}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION "libs")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH "same")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The ldconfig trigger, and maintainer scripts of our own so that CPack does not write its
# own, which would call ldconfig directly.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/cmake/debian/triggers"
    "${PROJECT_SOURCE_DIR}/cmake/debian/postinst"
    "${PROJECT_SOURCE_DIR}/cmake/debian/postrm")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "nuvra C++ runtime library
nuvra is a C++17 runtime library for Linux: GUIDs and random data, text,
formatting and hexadecimal helpers, buffered files with locking, digest
streams, file-system and directory walking, IP addresses and name
resolution, host, distribution and hypervisor facts, thread-local storage,
a recursive mutex, threads, child processes and clocks.
.
This package contains the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME "libnuvra-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION "libdevel")
set(CPACK_DEBIAN_DEV_PACKAGE_MULTIARCH "same")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "uuid-dev, libssl-dev (>= 3.0), libboost-regex-dev (>= 1.74)")
if(BUILD_SHARED_LIBS)
    set(CPACK_COMPONENT_DEV_DEPENDS runtime)
endif()
set(CPACK_COMPONENT_DEV_DESCRIPTION "nuvra C++ runtime library (development files)
nuvra is a C++17 runtime library for Linux: GUIDs and random data, text,
formatting and hexadecimal helpers, buffered files with locking, digest
streams, file-system and directory walking, IP addresses and name
resolution, host, distribution and hypervisor facts, thread-local storage,
a recursive mutex, threads, child processes and clocks.
.
This package contains the headers, the static library, the CMake package
(nuvra::nuvra) and the pkg-config file.")

include(CPack)
