# Warnings for every target of ours; errors in CI (CRC_WERROR).
option(CRC_WERROR "Treat warnings as errors" OFF)

add_library(crc_warnings INTERFACE)
target_compile_options(crc_warnings INTERFACE
    -Wall -Wextra -Wmissing-declarations -Wimplicit-fallthrough -Wformat=2 -Wpointer-arith -Wundef
    -Wvla
    # clang reports libubox's macros as our code, and what is far outside of a function as hidden.
    $<$<CXX_COMPILER_ID:GNU>:-Wcast-qual -Wshadow>
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
    $<$<BOOL:${CRC_WERROR}>:-Werror>)
