# One target that carries the compiler settings every part of the house is built with.
add_library(korvane_options INTERFACE)
target_compile_options(korvane_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough -Werror
    # An ignored failure is cast to void, which GCC does not take for an answer here.
    -Wno-unused-result)
# A library that a program does not use is not mapped into it.
target_link_options(korvane_options INTERFACE -Wl,--as-needed)
target_include_directories(korvane_options INTERFACE ${PROJECT_SOURCE_DIR}/src)

if(KORVANE_SANITIZE)
    # With a sanitizer's checks in between, GCC sees uninitialized values in the standard library.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(korvane_options INTERFACE -Wno-maybe-uninitialized)
    endif()
    target_compile_options(korvane_options INTERFACE
        -fsanitize=${KORVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(korvane_options INTERFACE -fsanitize=${KORVANE_SANITIZE})
endif()

if(KORVANE_FUZZ)
    # Counts edges everywhere, so that libFuzzer sees which inputs reach new code.
    target_compile_options(korvane_options INTERFACE -fsanitize=fuzzer-no-link)
    target_link_options(korvane_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
