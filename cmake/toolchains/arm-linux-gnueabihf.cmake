# 32-bit ARM with hardware floating point (packages g++-arm-linux-gnueabihf and qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Boost's headers fit every architecture and lie among the native ones. Searched last, these cannot
# hide the target's own.
set(CMAKE_CXX_FLAGS_INIT "-idirafter /usr/include")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;/usr/arm-linux-gnueabihf")
