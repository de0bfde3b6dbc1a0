# SPDX-License-Identifier: Apache-2.0
# Third-party libraries nuvra links against, found the CMake way.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(NUVRA_UUID REQUIRED uuid)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto)
find_package(Boost 1.74 REQUIRED COMPONENTS regex)
include(NuvraLinkTargets)

# A fully static link has to name what the archives themselves depend on: Boost.Regex is
# built with ICU, and libcrypto loads modules and runs threads.
if(NUVRA_STATIC_EXECUTABLES)
    add_link_options("$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-static>")
    set_property(TARGET nuvra::boost_regex APPEND PROPERTY
        INTERFACE_LINK_LIBRARIES icui18n icuuc icudata)
    set_property(TARGET nuvra::libcrypto APPEND PROPERTY
        INTERFACE_LINK_LIBRARIES ${CMAKE_DL_LIBS} Threads::Threads)
endif()

if(NUVRA_BUILD_TESTS)
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
