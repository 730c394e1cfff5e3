# Installed as CMakeLists.txt: builds this folder against the installed package.
#
#   cmake -S . -B build -DCMAKE_PREFIX_PATH=<prefix> && cmake --build build
cmake_minimum_required(VERSION 3.16)
project(hello CXX)
find_package(ReflectOrb 0.1 REQUIRED)

add_executable(hello hello.cpp)
target_link_libraries(hello PRIVATE ReflectOrb::reflectorb)
