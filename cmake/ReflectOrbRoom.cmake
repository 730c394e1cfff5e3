# A room is a folder of the library: its sources are compiled once, into object files, of which
# the shared libraries are made, and which the tests of internals link directly.
#
#   reflectorb_room(<name> SOURCES <file>...)
#
# makes the object library ro-<name>. Its files find public headers under include/ and internal
# ones from the top of the source tree ("platform/transport/local/...").
#
#   reflectorb_library(<target> ROOMS <room>... [ON <library>])
#
# makes the shared library <target> out of rooms, standing on another one, and beside it the
# archive <target>-internals with the same object files, in which hidden symbols can be reached.
# A room without sources is left out, a library without rooms is not made. What it exports carries the
# version <TARGET>_<version of its interface>: a program tells by that which library it was linked with.

set(REFLECTORB_PRECOMPILED_HEADERS
    <boost/shared_ptr.hpp> <algorithm> <atomic> <cstdint> <cstring> <deque> <functional> <list>
    <map> <memory> <set> <string> <unordered_map> <utility> <vector> <pthread.h>)

function(reflectorb_room name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES")
    if(NOT arg_SOURCES)
        return()
    endif()
    add_library(ro-${name} OBJECT ${arg_SOURCES})
    set_target_properties(ro-${name} PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    # Nobody replaces our functions by others of the same name, so calls among them may be direct.
    target_compile_options(ro-${name} PRIVATE -fno-semantic-interposition)
    target_include_directories(ro-${name}
        PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
        PRIVATE "${PROJECT_SOURCE_DIR}")
    target_link_libraries(ro-${name}
        PUBLIC Boost::headers Threads::Threads
        PRIVATE $<BUILD_INTERFACE:reflectorb-warnings>)
    reflectorb_precompile(ro-${name})
endfunction()

# All rooms are compiled with the same flags, so the first one's precompiled headers fit all.
function(reflectorb_precompile target)
    if(NOT REFLECTORB_PCH)
        return()
    endif()
    get_property(owner GLOBAL PROPERTY reflectorb_pch_owner)
    if(owner)
        target_precompile_headers(${target} REUSE_FROM ${owner})
    else()
        target_precompile_headers(${target} PRIVATE ${REFLECTORB_PRECOMPILED_HEADERS})
        set_property(GLOBAL PROPERTY reflectorb_pch_owner ${target})
    endif()
endfunction()

function(reflectorb_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "ON" "ROOMS")
    set(rooms)
    foreach(room IN LISTS arg_ROOMS)
        if(TARGET ro-${room})
            list(APPEND rooms ro-${room})
        endif()
    endforeach()
    if(NOT rooms)
        return()
    endif()
    list(TRANSFORM rooms REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>" OUTPUT_VARIABLE objects)

    add_library(${target} SHARED ${objects})
    add_library(${target}-internals STATIC EXCLUDE_FROM_ALL ${objects})
    set_target_properties(${target} ${target}-internals PROPERTIES LINKER_LANGUAGE CXX)
    target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions)
    set_target_properties(${target} PROPERTIES
        LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}"
        # Installed, one library finds the other beside itself, whatever the prefix.
        INSTALL_RPATH "\$ORIGIN"
        VERSION ${PROJECT_VERSION}
        SOVERSION ${REFLECTORB_SOVERSION})
    _reflectorb_version_symbols(${target})
    foreach(library ${target} ${target}-internals)
        target_include_directories(${library} PUBLIC
            "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
            "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/reflectorb>")
        target_compile_features(${library} PUBLIC cxx_std_17)
        target_link_libraries(${library} PUBLIC Boost::headers Threads::Threads)
    endforeach()
    # Where warnings are errors, a library must name all that it stands on. (The runtime of a
    # sanitizer comes with the program.)
    if(REFLECTORB_WERROR AND NOT REFLECTORB_SANITIZE)
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
    if(TARGET "${arg_ON}")
        target_link_libraries(${target} PUBLIC ${arg_ON})
        target_link_libraries(${target}-internals PUBLIC ${arg_ON}-internals)
    endif()
endfunction()

function(_reflectorb_version_symbols target)
    string(TOUPPER "${target}_${REFLECTORB_SOVERSION}" node)
    string(REPLACE "-" "_" node "${node}")
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
    file(CONFIGURE OUTPUT "${script}" CONTENT "@node@ { *; };\n" @ONLY)
    target_link_options(${target} PRIVATE "-Wl,--version-script=${script}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${script}")
endfunction()
