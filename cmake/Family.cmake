# Reads the one list of entry points (frame/family.def) and exposes it to
# CMake, so that the pipelines, the exports, the version script and the
# chief header all come from the same lines.
#
#   TM_OPERATORS        operator names, in list order
#   TM_OUTPUT_<op>      name of the operator's output argument
#   TM_STAGE_<op>       name of its intermediate stage (its first walk, for a
#                       two-stage operator), or none
#   TM_SECOND_<op>      its second walk, or none
#   TM_WINDOW_<op>      the image dimension bounding its window in dimension 2,
#                       or -1
#   TM_RESIDUE_<op>     1 where it reads the image again at the output
#   TM_TYPES            element type words
#   TM_TYPE_<t>         "code;bits;bytes;ctype"
#   TM_LEVELS           level words
#   TM_FEATURES_<l>     Halide target features of the level ("-" separated)
#   TM_CPU_FEATURES     processor feature names, in list order
#   TM_CPU_<f>          "level;leaf;subleaf;register;bit;xcr0;checked"
#   TM_EXPORTS          every export name, operator-major

set(TM_FAMILY_FILE "${CMAKE_CURRENT_LIST_DIR}/../frame/family.def")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${TM_FAMILY_FILE}")
file(STRINGS "${TM_FAMILY_FILE}" _tm_lines REGEX "^TM_(OPERATOR|TYPE|LEVEL|CPU_FEATURE)\\(")

set(TM_OPERATORS "")
set(TM_TYPES "")
set(TM_LEVELS "")
set(TM_CPU_FEATURES "")
foreach (line IN LISTS _tm_lines)
    string(REGEX MATCH "^TM_([A-Z_]+)\\((.*)\\)[ \t]*$" _m "${line}")
    set(kind "${CMAKE_MATCH_1}")
    string(REPLACE "," ";" args "${CMAKE_MATCH_2}")
    list(TRANSFORM args STRIP)
    list(GET args 0 word)
    if (kind STREQUAL "OPERATOR")
        list(APPEND TM_OPERATORS ${word})
        list(GET args 1 TM_OUTPUT_${word})
        list(GET args 2 _first)
        list(GET args 3 _second)
        set(TM_SECOND_${word} ${_second})
        list(GET args 4 TM_WINDOW_${word})
        list(GET args 5 TM_RESIDUE_${word})
        set(TM_STAGE_${word} none)
        if (NOT _second STREQUAL "none")
            set(TM_STAGE_${word} ${_first})
        endif ()
    elseif (kind STREQUAL "TYPE")
        list(APPEND TM_TYPES ${word})
        list(SUBLIST args 1 4 TM_TYPE_${word})
    elseif (kind STREQUAL "LEVEL")
        list(APPEND TM_LEVELS ${word})
        list(GET args 1 TM_FEATURES_${word})
    elseif (kind STREQUAL "CPU_FEATURE")
        list(APPEND TM_CPU_FEATURES ${word})
        list(SUBLIST args 1 7 TM_CPU_${word})
    endif ()
endforeach ()

set(TM_EXPORTS "")
foreach (op IN LISTS TM_OPERATORS)
    foreach (t IN LISTS TM_TYPES)
        foreach (l IN LISTS TM_LEVELS)
            list(APPEND TM_EXPORTS "${op}_${t}_${l}")
        endforeach ()
    endforeach ()
endforeach ()

list(LENGTH TM_EXPORTS _n)
message(STATUS "Entry points from the list: ${_n}")
