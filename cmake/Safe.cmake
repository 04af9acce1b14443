# The safe library, libtessmorphop3_halide_safe: the same frame and
# pipelines with their own runtime behind a returning error handler, and a
# small C API (include/tessmorphop3_halide_safe.h) as its only exports; and
# an archive of the same objects for the Python extension.

add_library(tm_safe_objects OBJECT safe/safe.cpp)
set_target_properties(tm_safe_objects PROPERTIES POSITION_INDEPENDENT_CODE ON
                      C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden)
target_include_directories(tm_safe_objects PRIVATE "${TM_GEN_DIR}" "${TM_GEN_DIR}/include" "${TM_ROOT}/include")
target_link_libraries(tm_safe_objects PRIVATE Halide::Runtime TBB::tbb)
target_compile_options(tm_safe_objects PRIVATE -Wall -Wextra)

add_library(tessmorphop3_halide_safe SHARED $<TARGET_OBJECTS:tm_frame_objects> $<TARGET_OBJECTS:tm_safe_objects>)
target_link_libraries(tessmorphop3_halide_safe PRIVATE ${TM_PIPELINE_LIBS} tm_runtime TBB::tbb m)
target_link_options(tessmorphop3_halide_safe PRIVATE
                    "-Wl,--version-script=${TM_ROOT}/safe/exports.map" "-Wl,--exclude-libs,ALL"
                    "-Wl,--no-undefined")
set_property(TARGET tessmorphop3_halide_safe APPEND PROPERTY LINK_DEPENDS "${TM_ROOT}/safe/exports.map")
set_target_properties(tessmorphop3_halide_safe PROPERTIES EXPORT_NAME safe
                      VERSION ${tessmorphop3_halide_VERSION}
                      SOVERSION ${tessmorphop3_halide_VERSION_MAJOR})
target_include_directories(tessmorphop3_halide_safe INTERFACE
                           "$<BUILD_INTERFACE:${TM_GEN_DIR}/include;${TM_ROOT}/include>")

add_library(tessmorphop3_halide_safe_static STATIC $<TARGET_OBJECTS:tm_frame_objects> $<TARGET_OBJECTS:tm_safe_objects>)
target_link_libraries(tessmorphop3_halide_safe_static PUBLIC ${TM_PIPELINE_LIBS} tm_runtime TBB::tbb m)
target_include_directories(tessmorphop3_halide_safe_static PUBLIC "${TM_GEN_DIR}/include" "${TM_ROOT}/include")
