# MIPS32: 32 bits, little-endian, unaligned access is an error.
set(CRC_CPU mipsel)
set(CRC_TRIPLET mipsel-linux-gnu)
set(CRC_QEMU qemu-mipsel)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
