# Build for 64-bit Arm with Debian's compiler. On another processor the programs run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
if(NOT CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L /usr/aarch64-linux-gnu)
endif()
