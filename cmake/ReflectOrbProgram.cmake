# Functions for programs that are no tests.
#
#   reflectorb_example(<name> SOURCES <file>...)
#   reflectorb_benchmark(<name> SOURCES <file>... [INTERNALS] [LIBRARIES <library>...])
#
# make programs, which lie in the build tree where their sources lie in this one
# (build/<preset>/examples/machine/panel). ./run demo and ./run bench build the targets
# reflectorb-examples and reflectorb-benchmarks, then start examples/machine/demo.sh and
# bench/bench.sh with the build tree as first argument.
#
#   reflectorb_fuzz_target(<name> SOURCES <file>...)
#
# makes a libFuzzer program that reaches hidden symbols. ./run fuzz finds it.

function(_reflectorb_program target library)
    target_link_libraries(${target} PRIVATE reflectorb-warnings)
    if(TARGET ${library})
        target_link_libraries(${target} PRIVATE ${library})
    endif()
    if(library MATCHES "-internals$")
        target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}")
    endif()
endfunction()

function(reflectorb_example name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES")
    add_executable(${name} ${arg_SOURCES})
    _reflectorb_program(${name} reflectorb)
    add_dependencies(reflectorb-examples ${name})
endfunction()

function(reflectorb_benchmark name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "INTERNALS" "" "SOURCES;LIBRARIES")
    add_executable(${name} ${arg_SOURCES})
    if(arg_INTERNALS)
        _reflectorb_program(${name} reflectorb-internals)
    else()
        _reflectorb_program(${name} reflectorb)
    endif()
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} Threads::Threads)
    add_dependencies(reflectorb-benchmarks ${name})
endfunction()

function(reflectorb_fuzz_target name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES")
    add_executable(fuzz-${name} ${arg_SOURCES})
    _reflectorb_program(fuzz-${name} reflectorb-internals)
    target_link_options(fuzz-${name} PRIVATE -fsanitize=fuzzer)
    set_target_properties(fuzz-${name} PROPERTIES
        OUTPUT_NAME ${name}
        RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz/targets")
endfunction()
