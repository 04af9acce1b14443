# What `cmake --install <build> --prefix P` ships, with GNUInstallDirs:
#   lib/libtessmorphop3_halide.so.1 (and its .so link), SONAME from the major version;
#   lib/libtessmorphop3_halide_safe.so.1 beside it, the same way;
#   include/tessmorphop3_halide.h, include/tessmorphop3_halide_easy.h,
#   include/tessmorphop3_halide_safe.h and
#   include/tessmorphop3_halide/HalideRuntime.h, so that -IP/include is enough;
#   lib/cmake/tessmorphop3_halide/ for find_package (target
#   tessmorphop3_halide::tessmorphop3_halide, and with COMPONENTS safe
#   tessmorphop3_halide::safe);
#   lib/pkgconfig/tessmorphop3_halide.pc and tessmorphop3_halide_safe.pc.
# The tests, the static archive, the generator and the other build tools
# stay in the build tree.  `cpack -G DEB` packs the same files.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(tessmorphop3_halide PROPERTIES
                      VERSION ${tessmorphop3_halide_VERSION}
                      SOVERSION ${tessmorphop3_halide_VERSION_MAJOR})

set(TM_PACKAGE_DIR "${CMAKE_CURRENT_BINARY_DIR}/package")
set(TM_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/tessmorphop3_halide")

install(TARGETS tessmorphop3_halide tessmorphop3_halide_safe EXPORT tessmorphop3_halide_targets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES "${TM_GEN_DIR}/include/tessmorphop3_halide.h" "${TM_ROOT}/include/tessmorphop3_halide_easy.h"
              "${TM_ROOT}/include/tessmorphop3_halide_safe.h"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES "${TM_GEN_DIR}/include/tessmorphop3_halide/HalideRuntime.h"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tessmorphop3_halide")
# The runtime header is Halide's, under Halide's licence.
install(FILES "${TM_ROOT}/cmake/HalideRuntime.LICENSE" DESTINATION "${CMAKE_INSTALL_DOCDIR}")

# CMake package.  The library's dependencies (TBB, the C library) are its
# own business at run time; a consumer needs nothing else found.
install(EXPORT tessmorphop3_halide_targets NAMESPACE tessmorphop3_halide::
        FILE tessmorphop3_halideTargets.cmake DESTINATION "${TM_INSTALL_CMAKEDIR}")
configure_package_config_file("${TM_ROOT}/cmake/tessmorphop3_halideConfig.cmake.in"
                              "${TM_PACKAGE_DIR}/tessmorphop3_halideConfig.cmake"
                              INSTALL_DESTINATION "${TM_INSTALL_CMAKEDIR}")
write_basic_package_version_file("${TM_PACKAGE_DIR}/tessmorphop3_halideConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${TM_PACKAGE_DIR}/tessmorphop3_halideConfig.cmake"
              "${TM_PACKAGE_DIR}/tessmorphop3_halideConfigVersion.cmake"
        DESTINATION "${TM_INSTALL_CMAKEDIR}")

# pkg-config.  The prefix is only known when installing (--prefix may differ
# from the configured one), so the file is finished by the install script.
set(TM_PC_PREFIX "@TM_PC_PREFIX@")
foreach (kind LIBDIR INCLUDEDIR)
    if (IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
        set(TM_PC_${kind} "${CMAKE_INSTALL_${kind}}")
    else ()
        set(TM_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif ()
endforeach ()
foreach (pc tessmorphop3_halide tessmorphop3_halide_safe)
    configure_file("${TM_ROOT}/cmake/${pc}.pc.in" "${TM_PACKAGE_DIR}/${pc}.pc.in" @ONLY)
    install(CODE "set(TM_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
configure_file(\"${TM_PACKAGE_DIR}/${pc}.pc.in\" \"${TM_PACKAGE_DIR}/${pc}.pc\" @ONLY)")
    install(FILES "${TM_PACKAGE_DIR}/${pc}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach ()

# A Debian package of the same files: cpack -G DEB in the build directory.
set(CPACK_PACKAGE_NAME libtessmorphop3-halide)
set(CPACK_PACKAGE_VENDOR "libtessmorphop3_halide developers")
set(CPACK_PACKAGE_CONTACT "libtessmorphop3_halide developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Flat morphological image operators of up to three dimensions, as plain C entry points")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
