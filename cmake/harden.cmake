# SPDX-License-Identifier: Apache-2.0
include(CheckCXXSourceRuns)

# Compact relocations, where not only the linker but also this system's loader knows them.
if(NOT CMAKE_CROSSCOMPILING AND NELVO_PLATFORM STREQUAL host)
    set(CMAKE_REQUIRED_LINK_OPTIONS -Wl,-z,pack-relative-relocs)
    check_cxx_source_runs("int main() {}" NELVO_PACKS_RELOCATIONS)
    unset(CMAKE_REQUIRED_LINK_OPTIONS)
endif()

# Called once for each target that is installed, beside nelvo_target_defaults().
function(nelvo_harden target)
    set(optimised $<CONFIG:Release,RelWithDebInfo>)
    target_compile_options(${target} PRIVATE -fstack-protector-strong)
    target_link_options(${target} PRIVATE -Wl,--as-needed,-z,relro,-z,now,-z,noexecstack)
    if(NELVO_PACKS_RELOCATIONS)
        target_link_options(${target} PRIVATE -Wl,-z,pack-relative-relocs)
    endif()
    if(NOT NELVO_SANITIZE AND NOT NELVO_COVERAGE AND NOT NELVO_FUZZ)
        target_compile_options(${target} PRIVATE
            $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()

# For libraries, where size is asked for. Calls go through relocated addresses, not a PLT: all are bound
# at the start anyway.
function(nelvo_shrink target)
    set(small $<CONFIG:Release>)
    target_compile_options(${target} PRIVATE $<${small}:-fno-plt>
        $<$<AND:${small},$<COMPILE_LANGUAGE:CXX>>:-fno-rtti>)
    target_link_options(${target} PRIVATE $<${small}:-Wl,-z,noseparate-code>) # a page less of padding
endfunction()
