# Third-party libraries nuvra links against, found the CMake way.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

# libuuid is linked by name (-luuid) rather than by the full path pkg-config's imported
# target would carry, so that a fully static link of nuvra-guid picks the archive.
pkg_check_modules(UUID REQUIRED uuid)
add_library(nuvra_libuuid INTERFACE IMPORTED)
set_target_properties(nuvra_libuuid PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${UUID_INCLUDE_DIRS}"
    INTERFACE_LINK_DIRECTORIES "${UUID_LIBRARY_DIRS}"
    INTERFACE_LINK_LIBRARIES "${UUID_LIBRARIES}")

# libcrypto is checked through find_package, then linked by name for the same reason.
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto)
add_library(nuvra_libcrypto INTERFACE IMPORTED)
set_target_properties(nuvra_libcrypto PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${OPENSSL_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "crypto")

# Boost.Regex likewise: checked through its CMake package, linked by name.
find_package(Boost 1.74 REQUIRED COMPONENTS regex)
add_library(nuvra_boost_regex INTERFACE IMPORTED)
set_target_properties(nuvra_boost_regex PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${Boost_INCLUDE_DIRS}"
    INTERFACE_LINK_LIBRARIES "boost_regex")

if(BUILD_TESTING)
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
