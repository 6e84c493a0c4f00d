# Cross toolchain for the device: 32-bit ARM Linux, hard float.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# The second holds what script/test-device fetches.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${CMAKE_CURRENT_LIST_DIR}/../.cache/armhf/root)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
# Notes on how g++ 7 changed an internal calling convention; everything here is built at once.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
