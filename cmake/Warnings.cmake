# Warnings for every target of ours; errors in CI (CRC_WERROR).
option(CRC_WERROR "Treat warnings as errors" OFF)

add_library(crc_warnings INTERFACE)
target_compile_options(crc_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wmissing-declarations -Wimplicit-fallthrough -Wformat=2 -Wcast-qual
    -Wpointer-arith -Wundef -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
    $<$<BOOL:${CRC_WERROR}>:-Werror>)
