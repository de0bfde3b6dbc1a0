# Warnings for nuvra's own targets; third-party headers are included as system headers.

function(nuvra_set_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
        -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wformat=2
        -Werror)
endfunction()
