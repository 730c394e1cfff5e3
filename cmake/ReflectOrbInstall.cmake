# What `cmake --install` gives: headers, libraries, the CMake package ReflectOrb and pkg-config files,
# the documents and the sources of the examples.
include(CMakePackageConfigHelpers)

set(REFLECTORB_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/reflectorb")
set(REFLECTORB_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/ReflectOrb")

# Headers lie in a folder of their own: their names are short.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/"
    DESTINATION "${REFLECTORB_INSTALL_INCLUDEDIR}"
    FILES_MATCHING PATTERN "*.h")

set_target_properties(reflectorb-platform PROPERTIES EXPORT_NAME platform)
install(TARGETS reflectorb reflectorb-platform EXPORT ReflectOrbTargets)
install(EXPORT ReflectOrbTargets
    NAMESPACE ReflectOrb::
    DESTINATION "${REFLECTORB_INSTALL_CMAKEDIR}")

configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/ReflectOrbConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/ReflectOrbConfig.cmake"
    INSTALL_DESTINATION "${REFLECTORB_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/ReflectOrbConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/ReflectOrbConfig.cmake"
    "${PROJECT_BINARY_DIR}/ReflectOrbConfigVersion.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/ReflectOrbIdl.cmake"
    DESTINATION "${REFLECTORB_INSTALL_CMAKEDIR}")

# The files name the prefix relative to themselves, so an installed tree can be moved.
foreach(package reflectorb reflectorb-platform)
    file(RELATIVE_PATH pkgconfig_to_prefix
        "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
    string(REGEX REPLACE "/$" "" pkgconfig_to_prefix "${pkgconfig_to_prefix}")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/${package}.pc.in" "${package}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/${package}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach()

install(FILES README.md CHANGELOG.md LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY docs examples DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    PATTERN docs/api EXCLUDE
    PATTERN CMakeLists.txt EXCLUDE
    PATTERN installed.cmake EXCLUDE)
foreach(example hello house machine)
    install(FILES examples/${example}/installed.cmake
        DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples/${example}"
        RENAME CMakeLists.txt)
endforeach()
