# Installed as CMakeLists.txt: builds this folder against the installed package.
#
#   cmake -S . -B build -DCMAKE_PREFIX_PATH=<prefix> && cmake --build build
cmake_minimum_required(VERSION 3.16)
project(house CXX)
find_package(ReflectOrb 0.1 REQUIRED)

# With the interface compiler the files of home.idl are made anew, else the ones kept here are taken.
set(kept GENERATED generated)
if(REFLECTORB_IDL_COMPILER AND REFLECTORB_OMNIIDL)
    set(kept)
endif()
add_library(home STATIC)
reflectorb_idl(home home.idl ${kept})
target_link_libraries(home PUBLIC ReflectOrb::reflectorb)

foreach(program house visitor)
    add_executable(${program} ${program}.cpp)
    target_link_libraries(${program} PRIVATE home)
endforeach()
