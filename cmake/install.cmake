# Install rules: the shared library (versioned SONAME; dsp.dll to bin/ and its
# import library to lib/ on Windows), the static library libdsp.a, the header,
# the tool, a CMake package (find_package(dsp) -> dsp::dsp, dsp::dsp_static)
# and a pkg-config file (dsp.pc). Included from the top-level CMakeLists.txt.
include(CMakePackageConfigHelpers)

set(DSP_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/dsp)

install(TARGETS dsp dsp_archive
    EXPORT dspTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/dsp.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET dsp_tool)
    install(TARGETS dsp_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# CMake package. The version rule follows the SONAME: within one major
# version the C interface only grows (the 86 functions stay as they are and
# extensions are added), so any 0.x at or above the requested version serves
# a consumer asking for 0.y, while a new major version does not.
install(EXPORT dspTargets
    NAMESPACE dsp::
    FILE dspTargets.cmake
    DESTINATION ${DSP_CMAKE_PACKAGE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/dspConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/dspConfig.cmake
    INSTALL_DESTINATION ${DSP_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/dspConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/package/dspConfig.cmake
    ${PROJECT_BINARY_DIR}/package/dspConfigVersion.cmake
    DESTINATION ${DSP_CMAKE_PACKAGE_DIR})

# pkg-config. The file is written at install time so that its prefix is the
# one installed to (cmake --install --prefix P); libdir and includedir stay
# relative to it unless they were given as absolute paths.
foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
        set(DSP_PC_${kind} "${CMAKE_INSTALL_${kind}}")
    else()
        set(DSP_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
endforeach()
# What a static link adds: the C++ runtime, libm and the thread library.
set(DSP_PC_LIBS_PRIVATE "-lstdc++ -lm -lpthread")
set(DSP_PC_PREFIX "@DSP_PC_PREFIX@") # filled in at install time
configure_file(${PROJECT_SOURCE_DIR}/cmake/dsp.pc.in ${PROJECT_BINARY_DIR}/package/dsp.pc.in @ONLY)
install(CODE "
    set(DSP_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${PROJECT_BINARY_DIR}/package/dsp.pc.in\" \"${PROJECT_BINARY_DIR}/package/dsp.pc\" @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/package/dsp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
