# Functions for the tests.
#
#   reflectorb_test(<name> SOURCES <file>... [LABELS <label>...] [TIMEOUT <seconds>] [SERIAL] [LONG]
#                   [BROKERS] [PLATFORM] [INTERNALS | ROOMS <room>...] [LIBRARIES <library>...])
#
# makes one GoogleTest program and registers each of its tests with ctest, which may run all of
# them at the same time; those of a SERIAL program run with nothing beside them, those of a LONG one
# are started early. TIMEOUT (default 60) holds for one test on a quiet machine; sanitizers and
# emulation multiply it. Labels are the folder's name and LABELS. A program with the label "native"
# does what an emulator cannot do, and is left out where there is one. BROKERS is for a program that
# makes brokers: they meet in a folder
# of its own (tests/support/BrokerFolder.cpp).
#
#   reflectorb_test_program(<name> SOURCES <file>... [PLATFORM] [INTERNALS | ROOMS ...] [LIBRARIES ...])
#
# makes a program that tests start as a child with fork and exec. Tests find it with
# testsupport::programCommand("<name>") of tests/support/ChildProgram.h.
#
# What both link: by default the shared library reflectorb, as a user would. PLATFORM takes only
# reflectorb-platform. INTERNALS takes archives of the same object files, so that hidden symbols and
# internal headers can be used. ROOMS takes the object files of the named rooms and nothing else:
# the test of a lower floor then builds although a higher one does not.

set(REFLECTORB_TEST_PROGRAM_DIR "${PROJECT_BINARY_DIR}/tests/programs")

# Sanitizers and emulation slow down what tests wait for.
set(REFLECTORB_TIMEOUT_FACTOR 1)
if(REFLECTORB_SANITIZE OR CMAKE_CROSSCOMPILING_EMULATOR)
    set(REFLECTORB_TIMEOUT_FACTOR 4)
endif()

# ctest starts the costliest first: those that judge times or sleep for a minute, then those that
# compute for long, lest they are left over when nothing else is to be done beside them.
set(REFLECTORB_FIRST_COST 1000)
set(REFLECTORB_LONG_COST 500)

macro(_reflectorb_parse_test_arguments)
    cmake_parse_arguments(PARSE_ARGV 1 arg
        "SERIAL;LONG;BROKERS;PLATFORM;INTERNALS" "TIMEOUT" "SOURCES;LABELS;ROOMS;LIBRARIES")
    if(arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "${name}: unknown arguments ${arg_UNPARSED_ARGUMENTS}")
    endif()
endmacro()

function(_reflectorb_link_library target platform internals rooms)
    set(libraries)
    if(rooms)
        list(TRANSFORM rooms PREPEND "ro-" OUTPUT_VARIABLE libraries)
    else()
        set(libraries reflectorb)
        if(platform OR NOT TARGET reflectorb)
            set(libraries reflectorb-platform)
        endif()
        if(internals)
            string(APPEND libraries "-internals")
        endif()
    endif()
    if(rooms OR internals)
        target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}")
    endif()
    # The support stands before the libraries, whose archives must resolve what it asks for.
    target_link_libraries(${target} PRIVATE reflectorb-test-support)
    # A room that has no sources yet has no target either.
    foreach(library IN LISTS libraries)
        if(TARGET ${library})
            target_link_libraries(${target} PRIVATE ${library})
        endif()
    endforeach()
    target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/include")
    target_link_libraries(${target} PRIVATE
        reflectorb-warnings Boost::headers Threads::Threads)
endfunction()

# Files that name things of their own as others of the folder do, or replace functions of the system,
# are compiled by themselves always.
function(reflectorb_apart)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

function(reflectorb_test name)
    _reflectorb_parse_test_arguments()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 60)
    endif()
    math(EXPR timeout "${arg_TIMEOUT} * ${REFLECTORB_TIMEOUT_FACTOR}")
    cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME folder)

    if(arg_BROKERS)
        list(APPEND arg_SOURCES "${PROJECT_SOURCE_DIR}/tests/support/BrokerFolder.cpp")
    endif()
    add_executable(${name} ${arg_SOURCES})
    _reflectorb_link_library(${name} "${arg_PLATFORM}" "${arg_INTERNALS}" "${arg_ROOMS}")
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} gtest_main gmock)
    if(REFLECTORB_PCH)
        target_precompile_headers(${name} REUSE_FROM reflectorb-test-pch)
    endif()
    set_target_properties(${name} PROPERTIES UNITY_BUILD ${REFLECTORB_UNITY})
    reflectorb_apart("${PROJECT_SOURCE_DIR}/tests/support/AllocationCount.cpp")
    add_dependencies(reflectorb-tests ${name})
    if(CMAKE_CROSSCOMPILING_EMULATOR AND "native" IN_LIST arg_LABELS)
        return()
    endif()
    set(cost 0)
    if("long" IN_LIST arg_LABELS)
        set(cost ${REFLECTORB_FIRST_COST})
    elseif(arg_LONG)
        set(cost ${REFLECTORB_LONG_COST})
    endif()
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${timeout} COST ${cost} RUN_SERIAL ${arg_SERIAL})
    _reflectorb_label_tests(${name} ${folder} ${arg_LABELS})
endfunction()

# The properties of gtest_discover_tests cannot hold lists, so labels are set when ctest has read
# the names that were discovered.
function(_reflectorb_label_tests name)
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
    file(CONFIGURE OUTPUT "${script}" @ONLY CONTENT [[
if(@name@_TESTS)
    set_tests_properties(${@name@_TESTS} PROPERTIES LABELS "@ARGN@")
endif()
]])
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
endfunction()

function(reflectorb_test_program name)
    _reflectorb_parse_test_arguments()
    add_executable(${name} ${arg_SOURCES})
    set_target_properties(${name} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY "${REFLECTORB_TEST_PROGRAM_DIR}")
    _reflectorb_link_library(${name} "${arg_PLATFORM}" "${arg_INTERNALS}" "${arg_ROOMS}")
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})
    add_dependencies(reflectorb-tests ${name})
endfunction()
