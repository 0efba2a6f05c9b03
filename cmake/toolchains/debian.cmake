# Cross compiling with Debian's compilers, against a sysroot that deps/sysroot.sh has unpacked, and
# running what was built under qemu-user. A file per CPU sets these three and includes this one:
#
# CRC_CPU       the CPU's name at Debian, for instance armhf
# CRC_TRIPLET   its compiler's prefix, for instance arm-linux-gnueabihf
# CRC_QEMU      its emulator, for instance qemu-arm

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroots/${CRC_CPU}
    ABSOLUTE)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${CRC_TRIPLET})
set(CMAKE_C_COMPILER ${CRC_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CRC_TRIPLET}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CRC_QEMU} -L ${CMAKE_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
