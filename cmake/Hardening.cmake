# Instrumented builds of the hand-written code: the frame, the dispatch and
# the exports (tm_frame_objects), and the tests or the fuzz target that call
# them.  The generator and the pipelines it emits stay as they are: their
# code is Halide's, and an instrumented generator would only make the build
# slow.
#
#   TM_SANITIZE  AddressSanitizer and UBSan; tests/CMakeLists.txt adds the
#                same flags to every test.
#   TM_FUZZ      libFuzzer's coverage (clang only), with the same sanitizers,
#                for tests/fuzz.

# -O1 and line tables only: reports still name files and lines, and the
# instrumented tests compile in a quarter of the time that -O3 -g takes.
set(TM_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer
                       -O1 -g1)

if (TM_SANITIZE AND TM_FUZZ)
    message(FATAL_ERROR "TM_SANITIZE and TM_FUZZ are separate builds")
endif ()

if (TM_SANITIZE)
    target_compile_options(tm_frame_objects PRIVATE ${TM_SANITIZER_FLAGS})
    target_link_options(tessmorphop3_halide PRIVATE ${TM_SANITIZER_FLAGS})
    # The archive carries the flags to whatever links it.
    target_link_options(tessmorphop3_halide_static INTERFACE ${TM_SANITIZER_FLAGS})
endif ()

if (TM_FUZZ)
    if (NOT CMAKE_C_COMPILER_ID STREQUAL "Clang" OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TM_FUZZ needs clang: configure with -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
    endif ()
    target_compile_options(tm_frame_objects PRIVATE -fsanitize=fuzzer-no-link ${TM_SANITIZER_FLAGS})
    target_link_options(tessmorphop3_halide PRIVATE ${TM_SANITIZER_FLAGS})
    target_link_options(tessmorphop3_halide_static INTERFACE ${TM_SANITIZER_FLAGS})
endif ()
