# A fuzz target is one small file with LLVMFuzzerTestOneInput, and a corpus beside it:
#   korvane_fuzz(NAME [LINKS target...] SOURCES file...)      corpus: tests/fuzz/corpus/NAME/
# Every preset replays the corpus as a test. The preset "fuzz" links libFuzzer and goes on for a
# bounded number of new inputs; for a longer run start build/fuzz/fuzz_NAME with a folder for them.
function(korvane_fuzz name)
    cmake_parse_arguments(FUZZ "" "" "LINKS;SOURCES" ${ARGN})
    if(KORVANE_SANITIZE STREQUAL "thread")
        return()  # No target has threads.
    endif()
    set(corpus ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${name})
    set(target fuzz_${name})
    add_executable(${target} ${FUZZ_SOURCES})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${target} PRIVATE ${FUZZ_LINKS})
    if(KORVANE_FUZZ)
        target_link_options(${target} PRIVATE -fsanitize=fuzzer)
        set(found ${PROJECT_BINARY_DIR}/fuzz-found/${name})
        file(MAKE_DIRECTORY ${found})
        add_test(NAME fuzz.${name}.replay COMMAND ${target} -runs=0 ${corpus})
        add_test(NAME fuzz.${name}.run COMMAND ${target} -runs=20000 -max_total_time=15
            -timeout=10 -artifact_prefix=${found}/ ${found} ${corpus})
        set_tests_properties(fuzz.${name}.run PROPERTIES LABELS fuzz TIMEOUT 120)
    else()
        target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/fuzz/ReplayMain.cpp)
        add_test(NAME fuzz.${name}.replay COMMAND ${target} ${corpus})
    endif()
    set_tests_properties(fuzz.${name}.replay PROPERTIES LABELS fuzz TIMEOUT 120)
endfunction()
