# SPDX-License-Identifier: Apache-2.0

# What every target of ours is compiled with; called once per target.
function(nelvo_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=) # what is built must not depend on where
    if(NELVO_SANITIZE)
        set(sanitizers -fsanitize=${NELVO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        if(NELVO_SANITIZE STREQUAL thread) # does not see fences; no thread of ours needs one
            list(APPEND sanitizers -Wno-tsan)
        endif()
        target_compile_options(${target} PRIVATE ${sanitizers})
        target_link_options(${target} PRIVATE ${sanitizers})
    endif()
    if(NELVO_FUZZ)
        set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all)
        target_compile_options(${target} PRIVATE ${sanitizers} -fsanitize=fuzzer-no-link)
        target_link_options(${target} PRIVATE ${sanitizers})
    endif()
    if(NELVO_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage -O0)
        target_link_options(${target} PRIVATE --coverage)
    endif()
    set_target_properties(${target} PROPERTIES
        C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()
