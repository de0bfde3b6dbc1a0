# Third-party libraries nuvra links against, found the CMake way.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(NUVRA_UUID REQUIRED uuid)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto)
find_package(Boost 1.74 REQUIRED COMPONENTS regex)
include(NuvraLinkTargets)

if(BUILD_TESTING)
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
