# 64-bit Arm, on a Debian machine of another kind: g++-aarch64-linux-gnu, libraries by multiarch, qemu-user for what the
# build and the tests run.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triplet aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/multiarch.cmake)
