# 32-bit Arm, as arm64.cmake.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(triplet arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/multiarch.cmake)
