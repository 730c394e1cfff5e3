# Interfaces written in IDL.
#
#   reflectorb_idl(<target> <file>.idl... [INCLUDE_DIRECTORIES <folder>...]
#                  [DEFINITIONS <NAME[=VALUE]>...] [HEADER_ONLY] [STRICT] [GENERATED <folder>])
#
# has the compiler reflectorb-idl write <file>.h, <file>.cpp and <file>.json, adds the sources to
# <target>, and lets it and who links it include the headers ("lamp.h"; of "sub/lamp.idl" it is
# "sub/lamp.h"). They are made anew when the IDL has changed, a file that it includes, or the
# compiler. Each target has a folder of its own for them; where several programs use an interface,
# make one library that they link.
#
# GENERATED names a folder with files that the compiler has written before, kept with the sources
# for machines that do not have it: they are used as they are. If they were made of another IDL
# than is there now, the configuration fails and says how to write them anew.
#
# The compiler is a Python program which runs the parser omniidl (Debian: omniidl). Both run on the
# machine that builds, also when it builds for another one; the cache variables
# REFLECTORB_IDL_COMPILER and REFLECTORB_OMNIIDL name them where they are not found.

find_program(REFLECTORB_IDL_COMPILER reflectorb-idl
    HINTS "${PACKAGE_PREFIX_DIR}/bin" NO_CMAKE_FIND_ROOT_PATH
    DOC "Interface compiler")
find_program(REFLECTORB_OMNIIDL omniidl NO_CMAKE_FIND_ROOT_PATH
    DOC "Parser of the interface compiler")

function(reflectorb_idl target)
    cmake_parse_arguments(PARSE_ARGV 1 arg
        "HEADER_ONLY;STRICT" "GENERATED" "INCLUDE_DIRECTORIES;DEFINITIONS")
    if(NOT arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "reflectorb_idl(${target}): names no .idl file")
    endif()
    if(arg_GENERATED)
        get_filename_component(folder "${arg_GENERATED}" ABSOLUTE)
    else()
        _reflectorb_need_idl_compiler(${target})
        set(folder "${CMAKE_CURRENT_BINARY_DIR}/reflectorb_idl/${target}")
    endif()
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${folder}>")

    set(options)
    if(arg_HEADER_ONLY)
        list(APPEND options --header-only)
    endif()
    if(arg_STRICT)
        list(APPEND options --strict)
    endif()
    foreach(include IN LISTS arg_INCLUDE_DIRECTORIES ITEMS "${CMAKE_CURRENT_SOURCE_DIR}")
        get_filename_component(include "${include}" ABSOLUTE)
        list(APPEND options -I "${include}")
    endforeach()
    foreach(definition IN LISTS arg_DEFINITIONS)
        list(APPEND options -D "${definition}")
    endforeach()

    foreach(idl IN LISTS arg_UNPARSED_ARGUMENTS)
        get_filename_component(path "${idl}" ABSOLUTE)
        file(RELATIVE_PATH place "${CMAKE_CURRENT_SOURCE_DIR}" "${path}")
        if(place MATCHES "^\\.\\.")
            get_filename_component(place "${path}" NAME)
        endif()
        string(REGEX REPLACE "\\.idl$" "" stem "${folder}/${place}")
        if(arg_GENERATED)
            _reflectorb_check_generated("${path}" "${stem}.json")
        else()
            _reflectorb_generate("${path}" "${stem}" "${options}" "${arg_HEADER_ONLY}")
        endif()
        target_sources(${target} PRIVATE "${stem}.h")
        if(NOT arg_HEADER_ONLY)
            target_sources(${target} PRIVATE "${stem}.cpp")
        endif()
    endforeach()
endfunction()

function(_reflectorb_need_idl_compiler target)
    if(NOT REFLECTORB_IDL_COMPILER)
        message(FATAL_ERROR "reflectorb_idl(${target}): the compiler reflectorb-idl was not found: "
            "set REFLECTORB_IDL_COMPILER")
    endif()
    if(NOT REFLECTORB_OMNIIDL)
        message(FATAL_ERROR "reflectorb_idl(${target}): the parser omniidl was not found; on Debian: "
            "apt-get install omniidl")
    endif()
endfunction()

function(_reflectorb_generate path stem options headerOnly)
    set(outputs "${stem}.h" "${stem}.json")
    if(NOT headerOnly)
        list(APPEND outputs "${stem}.cpp")
    endif()
    get_filename_component(folder "${stem}" DIRECTORY)
    get_filename_component(name "${path}" NAME)
    get_filename_component(compiler "${REFLECTORB_IDL_COMPILER}" DIRECTORY)
    file(GLOB parts
        "${compiler}/reflectorb_idl/*.py" "${compiler}/reflectorb_idl/*/*"
        "${compiler}/../share/reflectorb/reflectorb_idl/*.py"
        "${compiler}/../share/reflectorb/reflectorb_idl/*/*")
    # The rules that the compiler writes tell of included files. Makefiles know such rules from
    # CMake 3.20 on; before, CMake looks for included files itself.
    if(CMAKE_GENERATOR MATCHES "Ninja" OR NOT CMAKE_VERSION VERSION_LESS 3.20)
        set(includes DEPFILE "${stem}.idl.d")
    else()
        set(includes IMPLICIT_DEPENDS CXX "${path}")
    endif()
    add_custom_command(
        OUTPUT ${outputs}
        COMMAND "${REFLECTORB_IDL_COMPILER}" ${options} --omniidl "${REFLECTORB_OMNIIDL}"
            -o "${folder}" --depfile "${stem}.idl.d" "${path}"
        DEPENDS "${path}" "${REFLECTORB_IDL_COMPILER}" ${parts}
        ${includes}
        COMMENT "Compiling interfaces of ${name}"
        VERBATIM)
endfunction()

# Compares what the files were made of, which the .json tells, with what is there.
function(_reflectorb_check_generated path json)
    if(CMAKE_VERSION VERSION_LESS 3.19)
        return()
    endif()
    if(NOT EXISTS "${json}")
        message(FATAL_ERROR "${json} is missing: write it with reflectorb-idl ${path}")
    endif()
    get_filename_component(folder "${path}" DIRECTORY)
    file(READ "${json}" description)
    string(JSON count LENGTH "${description}" inputs)
    math(EXPR last "${count} - 1")
    foreach(index RANGE ${last})
        string(JSON name GET "${description}" inputs ${index} file)
        string(JSON expected GET "${description}" inputs ${index} sha256)
        # What was found in another folder is that of a package, which is as it is.
        if(NOT EXISTS "${folder}/${name}")
            continue()
        endif()
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${folder}/${name}")
        file(SHA256 "${folder}/${name}" actual)
        if(NOT actual STREQUAL expected)
            get_filename_component(target "${json}" DIRECTORY)
            message(FATAL_ERROR "${json} was made of another ${name} than ${folder}/${name}: "
                "reflectorb-idl -o ${target} ${path}")
        endif()
    endforeach()
endfunction()
