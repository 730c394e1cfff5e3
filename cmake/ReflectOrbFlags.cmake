# Language level, warnings and sanitizers of every target of this build.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Type of the build" FORCE)
endif()

# Files and offsets above 2 GiB also where a long has 32 bits.
add_compile_definitions(_FILE_OFFSET_BITS=64)

# Where only the compiler's words are wanted, it makes no code, and nothing is linked: that saves a
# third of the time.
if(REFLECTORB_CHECK_ONLY)
    set(touch "<CMAKE_COMMAND> -E touch")
    set(CMAKE_CXX_COMPILE_OBJECT
        "<CMAKE_CXX_COMPILER> <DEFINES> <INCLUDES> <FLAGS> -fsyntax-only <SOURCE>" "${touch} <OBJECT>")
    foreach(rule ARCHIVE_CREATE ARCHIVE_FINISH CREATE_SHARED_LIBRARY CREATE_SHARED_MODULE LINK_EXECUTABLE)
        set(CMAKE_CXX_${rule} "${touch} <TARGET>")
    endforeach()
endif()

# How tests are optimized: they are compiled more often than they run. Without an optimizer their
# compiler takes less by a third, with the sanitizers' additions to the code by a half; but an emulator
# has to translate more. In the build that is installed, what the public headers have inline is tested
# as users have it.
set(REFLECTORB_TESTED_OPTIONS)
if(REFLECTORB_SANITIZE OR (REFLECTORB_PEER_DIR AND NOT CMAKE_CROSSCOMPILING_EMULATOR))
    set(REFLECTORB_TESTED_OPTIONS -O0)
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    set(REFLECTORB_TESTED_OPTIONS -O1)
endif()

# GoogleTest is built with them as well: a sanitizer must see all code of a process.
if(REFLECTORB_SANITIZE)
    add_compile_options(-fsanitize=${REFLECTORB_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${REFLECTORB_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # What the sanitizer adds makes g++ warn of a std::variant's members that nothing reads.
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
    if(REFLECTORB_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=all)
        # To look at an object this check opens a pipe, and takes every object for a wrong one in a
        # process that has no descriptors left, as tests have them. The fuzz targets keep it.
        if(NOT REFLECTORB_FUZZ)
            add_compile_options(-fno-sanitize=vptr)
        endif()
    endif()
endif()

# Our own code only, so not added for the whole directory.
add_library(reflectorb-warnings INTERFACE)
target_compile_options(reflectorb-warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
    -Wcast-qual -Wformat=2 -Wundef
    # clang counts changes of sign as conversions, gcc does not; the wire is full of them.
    $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion>
    # The lock annotations of the platform's mutexes are only understood by clang.
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Werror=thread-safety>
    $<$<BOOL:${REFLECTORB_WERROR}>:-Werror>)
