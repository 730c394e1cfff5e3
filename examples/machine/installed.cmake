# Installed as CMakeLists.txt: builds this folder against the installed package.
#
#   cmake -S . -B build -DCMAKE_PREFIX_PATH=<prefix> && cmake --build build
cmake_minimum_required(VERSION 3.16)
project(machine CXX)
find_package(ReflectOrb 0.1 REQUIRED)

# With the interface compiler the files of machine.idl are made anew, else the ones kept here are taken.
set(kept GENERATED generated)
if(REFLECTORB_IDL_COMPILER AND REFLECTORB_OMNIIDL)
    set(kept)
endif()
add_library(machine-interfaces STATIC)
reflectorb_idl(machine-interfaces machine.idl ${kept})
target_link_libraries(machine-interfaces PUBLIC ReflectOrb::reflectorb)

add_executable(machine machine.cpp Figures.cpp)
add_executable(panel panel.cpp PartWatch.cpp Table.cpp)
foreach(program machine panel)
    target_link_libraries(${program} PRIVATE machine-interfaces)
endforeach()
