# No router's CPU: 64 bits, and big-endian, which some routers' CPUs are.
set(CRC_CPU s390x)
set(CRC_TRIPLET s390x-linux-gnu)
set(CRC_QEMU qemu-s390x)
set(CMAKE_SYSTEM_PROCESSOR s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
