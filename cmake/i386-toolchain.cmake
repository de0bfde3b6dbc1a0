# SPDX-License-Identifier: Apache-2.0
# Builds nuvra as 32-bit x86 (i386) programs with the host's multilib g++ and runs them with
# qemu-i386-static. The third-party libraries and their headers come from i386 Debian
# packages unpacked into NUVRA_I386_SYSROOT (default: <build tree>/sysroot), which
# scripts/i386-sysroot.sh fills beforehand; the C and C++ runtime libraries are the multilib
# ones in /usr/lib32 and /usr/lib/gcc.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

if(NOT NUVRA_I386_SYSROOT)
    set(NUVRA_I386_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH
        "Where the i386 packages nuvra builds against are unpacked")
endif()
# try_compile projects read this file again from their own build trees.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NUVRA_I386_SYSROOT)

if(NOT EXISTS "${NUVRA_I386_SYSROOT}/usr/include/uuid/uuid.h")
    message(FATAL_ERROR "No i386 sysroot in ${NUVRA_I386_SYSROOT}: run "
        "scripts/i386-sysroot.sh ${NUVRA_I386_SYSROOT} first")
endif()

# Libraries, headers and CMake packages only from the sysroot; programs (pkg-config, the
# emulator) from the host.
set(CMAKE_FIND_ROOT_PATH "${NUVRA_I386_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The sysroot's headers come before /usr/include, which holds the amd64 packages' copies;
# OpenSSL keeps its configuration header in the architecture's own folder.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES
    "${NUVRA_I386_SYSROOT}/usr/include/i386-linux-gnu" "${NUVRA_I386_SYSROOT}/usr/include")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${CMAKE_C_STANDARD_INCLUDE_DIRECTORIES})

# pkg-config answers from the sysroot only, with its paths prefixed by it.
set(ENV{PKG_CONFIG_LIBDIR}
    "${NUVRA_I386_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${NUVRA_I386_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${NUVRA_I386_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})

find_program(NUVRA_QEMU_I386 qemu-i386-static NO_CMAKE_FIND_ROOT_PATH)
if(NOT NUVRA_QEMU_I386)
    message(FATAL_ERROR "qemu-i386-static not found: install qemu-user-static (scripts/setup.sh i386)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${NUVRA_QEMU_I386}")
