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

# Tests that run programs which are not instrumented themselves (the Python
# interpreter, the install consumers, the compilers they start) load the
# instrumented library only with the sanitizer's runtime preloaded, and the
# C++ runtime with it, so that the runtime finds the functions it wraps.
# Those programs keep memory to the end by design: no leak check there.
set(TM_SANITIZER_HOST_ENV "")

if (TM_SANITIZE)
    foreach (lib libasan.so libstdc++.so.6)
        execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${lib}
                        OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        list(APPEND _preload "${path}")
    endforeach ()
    list(JOIN _preload " " _preload)
    set(TM_SANITIZER_HOST_ENV "LD_PRELOAD=${_preload}" "ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1")
    target_compile_options(tm_frame_objects PRIVATE ${TM_SANITIZER_FLAGS})
    target_compile_options(tm_safe_objects PRIVATE ${TM_SANITIZER_FLAGS})
    target_link_options(tessmorphop3_halide PRIVATE ${TM_SANITIZER_FLAGS})
    target_link_options(tessmorphop3_halide_safe PRIVATE ${TM_SANITIZER_FLAGS})
    # The archives carry the flags to whatever links them.
    target_link_options(tessmorphop3_halide_static INTERFACE ${TM_SANITIZER_FLAGS})
    target_link_options(tessmorphop3_halide_safe_static INTERFACE ${TM_SANITIZER_FLAGS})
endif ()

if (TM_FUZZ)
    if (NOT CMAKE_C_COMPILER_ID STREQUAL "Clang" OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TM_FUZZ needs clang: configure with -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
    endif ()
    target_compile_options(tm_frame_objects PRIVATE -fsanitize=fuzzer-no-link ${TM_SANITIZER_FLAGS})
    target_compile_options(tm_safe_objects PRIVATE ${TM_SANITIZER_FLAGS})
    foreach (lib tessmorphop3_halide tessmorphop3_halide_safe)
        target_link_options(${lib} PRIVATE ${TM_SANITIZER_FLAGS})
    endforeach ()
    foreach (lib tessmorphop3_halide_static tessmorphop3_halide_safe_static)
        target_link_options(${lib} INTERFACE ${TM_SANITIZER_FLAGS})
    endforeach ()
endif ()
