# Compiles for 32-bit ARM with Debian's cross compiler; qemu runs what was built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# gcc tells that it once passed some types in another way, which concerns old libraries only.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
