# SPDX-License-Identifier: Apache-2.0
# Warnings for nuvra's own targets; third-party headers are included as system headers.
# Warnings become errors only with NUVRA_WERROR, which the presets (and so CI) turn on: a
# newer compiler's new warning must not break the build of someone who embeds nuvra.

function(nuvra_set_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
        -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wformat=2)
    set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR ${NUVRA_WERROR})
endfunction()
