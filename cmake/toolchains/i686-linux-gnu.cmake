# 32-bit x86 with the native compiler (package g++-12-multilib). The kernel runs the programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc-12)
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
# The kernel's headers live only in the folder of the native architecture.
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
