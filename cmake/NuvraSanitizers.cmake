# SPDX-License-Identifier: Apache-2.0
# NUVRA_SANITIZE builds everything, the library, its tests and the tool, with one sanitizer.
# What cannot work under one looks at the same variable: the tool is then linked dynamically,
# and its memcheck run is left out.

if(NUVRA_SANITIZE STREQUAL "address")
    set(nuvra_sanitizer_flags -fsanitize=address,undefined -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    set(nuvra_sanitizer_link -fsanitize=address,undefined)
elseif(NUVRA_SANITIZE STREQUAL "thread")
    set(nuvra_sanitizer_flags -fsanitize=thread -fno-omit-frame-pointer)
    set(nuvra_sanitizer_link -fsanitize=thread)
elseif(NOT NUVRA_SANITIZE STREQUAL "")
    message(FATAL_ERROR "NUVRA_SANITIZE is \"address\", \"thread\" or empty, not \"${NUVRA_SANITIZE}\"")
endif()

if(nuvra_sanitizer_flags)
    if(NUVRA_STATIC_EXECUTABLES)
        message(FATAL_ERROR "Sanitizer runtimes need dynamic linking: NUVRA_STATIC_EXECUTABLES=OFF")
    endif()
    add_compile_options(${nuvra_sanitizer_flags})
    add_link_options(${nuvra_sanitizer_link})
endif()
