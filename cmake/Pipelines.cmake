# Builds every pipeline of the list, the one shared runtime, the exported
# frames, the chief header and the version script, and from them the shared
# library and a static archive of the same objects for the tests.

set(TM_ROOT "${CMAKE_CURRENT_SOURCE_DIR}")
set(TM_GEN_DIR "${CMAKE_CURRENT_BINARY_DIR}/generated")
file(MAKE_DIRECTORY "${TM_GEN_DIR}" "${TM_GEN_DIR}/include")

# The operating-system word of the targets follows the build platform.
string(REGEX REPLACE "^([^-]+-[^-]+-[^-]+).*$" "\\1" TM_ARCH_OS "${Halide_CMAKE_TARGET}")

add_halide_generator(tm_generator
                     SOURCES frame/generator.cpp stages/element_walk.cpp stages/walk_schedule.cpp
                             stages/walk_direct.cpp stages/walk_taps.cpp stages/walk_box.cpp
                             stages/walk_planes.cpp stages/walk_runs.cpp stages/walk_segments.cpp
                             pipelines/operators.cpp pipelines/residue.cpp)

# One runtime for all pipelines, for the baseline target.
add_custom_command(OUTPUT "${TM_GEN_DIR}/tm_runtime.o"
                   COMMAND tm_generator -r tm_runtime -o "${TM_GEN_DIR}" -e object target=${TM_ARCH_OS}
                   DEPENDS tm_generator VERBATIM)
add_library(tm_runtime STATIC "${TM_GEN_DIR}/tm_runtime.o")
set_target_properties(tm_runtime PROPERTIES LINKER_LANGUAGE CXX)
target_link_libraries(tm_runtime INTERFACE Halide::Runtime Threads::Threads ${CMAKE_DL_LIBS})

# Lane counts, from Halide itself.
add_executable(tm_lanes frame/lanes.cpp)
target_link_libraries(tm_lanes PRIVATE Halide::Halide)
set(_lane_args "")
foreach (l IN LISTS TM_LEVELS)
    list(APPEND _lane_args "${l}=${TM_FEATURES_${l}}")
endforeach ()
list(APPEND _lane_args "--")
foreach (t IN LISTS TM_TYPES)
    # A boolean sample is stored and vectorised as a byte.
    set(ht "${t}")
    if (t STREQUAL "bool")
        set(ht uint8)
    endif ()
    list(APPEND _lane_args "${t}=${ht}")
endforeach ()
add_custom_command(OUTPUT "${TM_GEN_DIR}/tm_lanes.h"
                   COMMAND tm_lanes "${TM_GEN_DIR}/tm_lanes.h" ${TM_ARCH_OS} ${_lane_args}
                   DEPENDS tm_lanes VERBATIM)

# One pipeline per export, under an internal name.
set(TM_PIPELINE_LIBS "")
set(_prototypes "")
# exports.c calls each pipeline through the header Halide generates beside
# it, so that an argument list that differs from the frame's call does not
# compile.
set(_exports_c "/* Generated from the list of entry points: one thin export per pipeline, and its adapter from the frame's call to the compiled pipeline. */\n#include <stdbool.h>\n\n#include \"frame.h\"\n#include \"tm_lanes.h\"\n\n#define TM_WINDOW(c) (c)->window_min[0], (c)->window_min[1], (c)->window_min[2], (c)->window_extent[0], (c)->window_extent[1], (c)->window_extent[2]\n#define TM_BANDS(c) (c)->walk, (c)->tap_runs, (c)->longest_run, (c)->exact_lengths, (c)->one_read_runs, (c)->slab_planes\n#define TM_ROWS(b) (b)->dim[0].min, (b)->dim[0].extent, (b)->dim[1].min\n\n")
set(_version "{\n  global:\n")
foreach (op IN LISTS TM_OPERATORS)
    set(out "${TM_OUTPUT_${op}}")
    foreach (t IN LISTS TM_TYPES)
        list(GET TM_TYPE_${t} 0 code)
        list(GET TM_TYPE_${t} 1 bits)
        list(GET TM_TYPE_${t} 2 bytes)
        set(ht "${t}")
        set(is_bool false)
        if (t STREQUAL "bool")
            set(ht uint8)
            set(is_bool true)
        endif ()
        foreach (l IN LISTS TM_LEVELS)
            set(name "${op}_${t}_${l}")
            if (TM_ONLY AND NOT name MATCHES "${TM_ONLY}")
                continue()
            endif ()
            set(stage "${TM_STAGE_${op}}")
            # The pipeline that computes the output.  Opening's second stage
            # reads its intermediate through a window, padded outside it, as
            # the dilation pipeline reads an image: that pipeline computes
            # it.  Closing's reads its intermediate unpadded (the box is what
            # it reads, so it needs no copy of its rows), and top-hat and
            # bottom-hat read the image again: each is a pipeline of its own.
            # The first stage is the one-stage pipeline named after the
            # intermediate.  All are built here whether or not a development
            # build exports them.
            set(run_pipeline ${op})
            if (TM_WINDOW_${op} GREATER_EQUAL 0 AND TM_RESIDUE_${op} EQUAL 0)
                set(run_pipeline ${TM_SECOND_${op}})
            endif ()
            set(pipelines ${run_pipeline})
            if (NOT stage STREQUAL "none")
                list(PREPEND pipelines ${stage})
            endif ()
            foreach (p IN LISTS pipelines)
                if (TARGET tm_${p}_${t}_${l})
                    continue()
                endif ()
                set(params keyimForType.type=${ht} ${TM_OUTPUT_${p}}.type=${ht} boolean=${is_bool})
                if (NOT TM_STAGE_${p} STREQUAL "none")
                    list(APPEND params ${TM_STAGE_${p}}.type=${ht})
                endif ()
                string(REPLACE "-" ";" features "${TM_FEATURES_${l}}")
                add_halide_library(tm_${p}_${t}_${l} FROM tm_generator
                                   GENERATOR ${p}
                                   TARGETS ${TM_ARCH_OS}
                                   FEATURES ${features}
                                   USE_RUNTIME tm_runtime
                                   PARAMS ${params})
                list(APPEND TM_PIPELINE_LIBS tm_${p}_${t}_${l})
                string(APPEND _exports_c "#include \"tm_${p}_${t}_${l}.h\"\n")
                # Its adapter from the frame's call, one per pipeline.
                set(stage_arg "")
                if (NOT TM_STAGE_${p} STREQUAL "none")
                    set(stage_arg " c->stage,")
                endif ()
                string(APPEND _exports_c
                       "static int run_${p}_${t}_${l}(const tm_call *c) {\n"
                       "    return tm_${p}_${t}_${l}(c->keyimForType, c->minmax, c->strel, c->wide != 0, TM_WINDOW(c), TM_BANDS(c), TM_ROWS(c->out),${stage_arg} c->out);\n}\n")
            endforeach ()
            string(APPEND _prototypes
                   "int ${name}(halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel, halide_buffer_t *${out});\n")
            set(first NULL)
            if (NOT stage STREQUAL "none")
                set(first run_${stage}_${t}_${l})
            endif ()
            string(APPEND _exports_c
                   "__attribute__((visibility(\"default\"))) int ${name}(halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel, halide_buffer_t *${out}) {\n"
                   "    static const tm_entry e = {TM_OP_${op}, ${code}, ${bits}, ${bytes}, TM_LANES_${t}_${l}, run_${run_pipeline}_${t}_${l}, ${first}};\n"
                   "    return tm_frame(&e, keyimForType, minmax, strel, ${out});\n}\n\n")
            string(APPEND _version "    ${name};\n")
        endforeach ()
    endforeach ()
endforeach ()
string(APPEND _version "  local:\n    *;\n};\n")

set(TM_PROTOTYPES "${_prototypes}")

# The list again, as X-macros of the chief header, for callers that cover
# every export (the header-only companion among them).
function(tm_list_macro var name)
    list(JOIN ARGN " \\\n    " body)
    set(${var} "${${var}}#define ${name}(X) \\\n    ${body}\n" PARENT_SCOPE)
endfunction()
set(_x_ops "")
set(_x_types "")
set(_x_levels "")
set(_x_entries "")
foreach (op IN LISTS TM_OPERATORS)
    list(APPEND _x_ops "X(${op}, ${TM_OUTPUT_${op}})")
endforeach ()
foreach (t IN LISTS TM_TYPES)
    list(JOIN TM_TYPE_${t} ", " _fields)
    list(APPEND _x_types "X(${t}, ${_fields})")
endforeach ()
foreach (l IN LISTS TM_LEVELS)
    list(APPEND _x_levels "X(${l})")
endforeach ()
foreach (op IN LISTS TM_OPERATORS)
    foreach (t IN LISTS TM_TYPES)
        foreach (l IN LISTS TM_LEVELS)
            # A development build of some exports lists only those.
            if (TM_ONLY AND NOT "${op}_${t}_${l}" MATCHES "${TM_ONLY}")
                continue()
            endif ()
            list(APPEND _x_entries "X(${op}, ${t}, ${l})")
        endforeach ()
    endforeach ()
endforeach ()
set(_x_cpu "")
foreach (f IN LISTS TM_CPU_FEATURES)
    list(JOIN TM_CPU_${f} ", " _fields)
    list(APPEND _x_cpu "X(${f}, ${_fields})")
endforeach ()
set(TM_LIST_MACROS "")
tm_list_macro(TM_LIST_MACROS TESSMORPHOP3_HALIDE_OPERATORS ${_x_ops})
tm_list_macro(TM_LIST_MACROS TESSMORPHOP3_HALIDE_TYPES ${_x_types})
tm_list_macro(TM_LIST_MACROS TESSMORPHOP3_HALIDE_LEVELS ${_x_levels})
tm_list_macro(TM_LIST_MACROS TESSMORPHOP3_HALIDE_ENTRIES ${_x_entries})
tm_list_macro(TM_LIST_MACROS TESSMORPHOP3_HALIDE_CPU_FEATURES ${_x_cpu})
configure_file(include/tessmorphop3_halide.h.in "${TM_GEN_DIR}/include/tessmorphop3_halide.h" @ONLY)

# The chief header includes its own copy of the runtime header (the
# descriptor types), kept under a folder of ours so that it cannot be taken
# for an installed Halide's; callers then need no Halide include directory.
get_target_property(_tm_runtime_dirs Halide::Runtime INTERFACE_INCLUDE_DIRECTORIES)
find_file(TM_HALIDE_RUNTIME_HEADER HalideRuntime.h PATHS ${_tm_runtime_dirs} NO_DEFAULT_PATH REQUIRED)
configure_file("${TM_HALIDE_RUNTIME_HEADER}" "${TM_GEN_DIR}/include/tessmorphop3_halide/HalideRuntime.h" COPYONLY)
file(CONFIGURE OUTPUT "${TM_GEN_DIR}/exports.c" CONTENT "${_exports_c}" @ONLY)
file(CONFIGURE OUTPUT "${TM_GEN_DIR}/exports.map" CONTENT "${_version}" @ONLY)
string(REPLACE ";" "\n" _export_list "${TM_EXPORTS}")
file(CONFIGURE OUTPUT "${TM_GEN_DIR}/exports.txt" CONTENT "${_export_list}\n" @ONLY)

# Frame and dispatch, compiled once for both libraries.
add_library(tm_frame_objects OBJECT
            frame/frame.c frame/regions.c frame/walk_plan.c frame/compact.c frame/handover.c frame/run.c frame/messages.c "${TM_GEN_DIR}/exports.c" "${TM_GEN_DIR}/tm_lanes.h"
            dispatch/blocks.c dispatch/par_for.cpp dispatch/load_hook.c)
set_target_properties(tm_frame_objects PROPERTIES POSITION_INDEPENDENT_CODE ON
                      C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden)
target_include_directories(tm_frame_objects PRIVATE frame dispatch stages "${TM_GEN_DIR}")
# The pipelines' libraries bring the directory of their generated headers.
target_link_libraries(tm_frame_objects PRIVATE Halide::Runtime TBB::tbb ${TM_PIPELINE_LIBS})
target_compile_options(tm_frame_objects PRIVATE -Wall -Wextra)
# A call that does not match its pipeline's generated declaration fails to
# compile, rather than warn.
set_source_files_properties("${TM_GEN_DIR}/exports.c" PROPERTIES
                            COMPILE_OPTIONS "-Werror=incompatible-pointer-types;-Werror=int-conversion")

add_library(tessmorphop3_halide SHARED $<TARGET_OBJECTS:tm_frame_objects>)
target_link_libraries(tessmorphop3_halide PRIVATE ${TM_PIPELINE_LIBS} tm_runtime TBB::tbb m)
target_link_options(tessmorphop3_halide PRIVATE
                    "-Wl,--version-script=${TM_GEN_DIR}/exports.map" "-Wl,--exclude-libs,ALL"
                    "-Wl,--no-undefined")
set_property(TARGET tessmorphop3_halide APPEND PROPERTY LINK_DEPENDS "${TM_GEN_DIR}/exports.map")
# Installed, the headers are found through the package's include directory
# (cmake/Install.cmake); in the build tree, the generated and the written ones.
target_include_directories(tessmorphop3_halide INTERFACE
                           "$<BUILD_INTERFACE:${TM_GEN_DIR}/include;${TM_ROOT}/include>")
target_link_libraries(tessmorphop3_halide INTERFACE $<BUILD_INTERFACE:Halide::Runtime>)

# The same objects as an archive, for tests that install a returning error
# handler or a failing allocator in the runtime.
add_library(tessmorphop3_halide_static STATIC $<TARGET_OBJECTS:tm_frame_objects>)
target_link_libraries(tessmorphop3_halide_static PUBLIC ${TM_PIPELINE_LIBS} tm_runtime TBB::tbb m)
target_include_directories(tessmorphop3_halide_static PUBLIC "${TM_GEN_DIR}/include")
add_custom_target(tm_lanes_header DEPENDS "${TM_GEN_DIR}/tm_lanes.h")
