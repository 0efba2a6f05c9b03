# ARMv7: 32 bits, little-endian, char is unsigned.
set(CRC_CPU armhf)
set(CRC_TRIPLET arm-linux-gnueabihf)
set(CRC_QEMU qemu-arm)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
