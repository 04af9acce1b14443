# Links the generator and the pipelines of another build directory of
# the same sources (TM_PIPELINES_FROM) instead of generating them again.
#
# The sanitizer and fuzz builds change how the frame, the dispatch and the
# tests are compiled, never the pipelines: those are Halide's output, not
# compiled by this build's compiler, and generating them is most of a
# build's time.  So these two Halide helpers are replaced, before
# Pipelines.cmake calls them, by ones that import what the other build
# made under the same names.  The other build must be up to date; the
# scripts that use this (scripts/sanitize.sh, scripts/fuzz.sh) build it
# first.

get_filename_component(TM_PIPELINES_FROM "${TM_PIPELINES_FROM}" ABSOLUTE)
if (NOT EXISTS "${TM_PIPELINES_FROM}/tm_generator")
    message(FATAL_ERROR "TM_PIPELINES_FROM=${TM_PIPELINES_FROM} holds no built generator: build it first")
endif ()
message(STATUS "Pipelines from ${TM_PIPELINES_FROM}")

function(add_halide_generator TARGET)
    add_executable(${TARGET} IMPORTED GLOBAL)
    set_target_properties(${TARGET} PROPERTIES IMPORTED_LOCATION "${TM_PIPELINES_FROM}/${TARGET}")
endfunction()

function(add_halide_library TARGET)
    cmake_parse_arguments(ARG "" "USE_RUNTIME" "" ${ARGN})
    set(archive "${TM_PIPELINES_FROM}/${CMAKE_STATIC_LIBRARY_PREFIX}${TARGET}${CMAKE_STATIC_LIBRARY_SUFFIX}")
    if (NOT EXISTS "${archive}")
        message(FATAL_ERROR "${archive} is missing: build ${TM_PIPELINES_FROM} first")
    endif ()
    add_library(${TARGET} STATIC IMPORTED GLOBAL)
    # The header Halide generated beside the archive, as add_halide_library
    # offers it.
    set_target_properties(${TARGET} PROPERTIES IMPORTED_LOCATION "${archive}"
                          INTERFACE_LINK_LIBRARIES "${ARG_USE_RUNTIME}"
                          INTERFACE_INCLUDE_DIRECTORIES "${TM_PIPELINES_FROM}")
endfunction()
