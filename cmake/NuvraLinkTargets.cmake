# SPDX-License-Identifier: Apache-2.0
# The three link targets (nuvra::libuuid, nuvra::libcrypto, nuvra::boost_regex) that nuvra's
# static archive names for its private dependencies.
# Included by the build and by the installed nuvraConfig.cmake, once the packages below have
# been found: pkg-config's "uuid" module into NUVRA_UUID_*, OpenSSL's Crypto component and
# Boost.Regex.
#
# libuuid, libcrypto and Boost.Regex are linked by name (-luuid, -lcrypto, -lboost_regex)
# rather than through the full paths that the packages' own imported targets carry, so that a
# fully static link of nuvra-guid picks the archives. Each target names the folder its library
# was found in, which matters when that is not the linker's own (a sysroot of another
# architecture, for one).

if(NOT TARGET nuvra::libuuid)
    add_library(nuvra::libuuid INTERFACE IMPORTED)
    set_target_properties(nuvra::libuuid PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${NUVRA_UUID_INCLUDE_DIRS}"
        INTERFACE_LINK_DIRECTORIES "${NUVRA_UUID_LIBRARY_DIRS}"
        INTERFACE_LINK_LIBRARIES "${NUVRA_UUID_LIBRARIES}")
endif()

if(NOT TARGET nuvra::libcrypto)
    add_library(nuvra::libcrypto INTERFACE IMPORTED)
    get_filename_component(nuvra_crypto_dir "${OPENSSL_CRYPTO_LIBRARY}" DIRECTORY)
    set_target_properties(nuvra::libcrypto PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${OPENSSL_INCLUDE_DIR}"
        INTERFACE_LINK_DIRECTORIES "${nuvra_crypto_dir}"
        INTERFACE_LINK_LIBRARIES "crypto")
    unset(nuvra_crypto_dir)
endif()

if(NOT TARGET nuvra::boost_regex)
    add_library(nuvra::boost_regex INTERFACE IMPORTED)
    get_target_property(nuvra_boost_regex_file Boost::regex LOCATION)
    get_filename_component(nuvra_boost_regex_dir "${nuvra_boost_regex_file}" DIRECTORY)
    set_target_properties(nuvra::boost_regex PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${Boost_INCLUDE_DIRS}"
        INTERFACE_LINK_DIRECTORIES "${nuvra_boost_regex_dir}"
        INTERFACE_LINK_LIBRARIES "boost_regex")
    unset(nuvra_boost_regex_file)
    unset(nuvra_boost_regex_dir)
endif()
