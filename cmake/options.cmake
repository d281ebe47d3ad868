# Options, and the compiler settings of all targets.

option(KESTCROND_BUILD_CTL "Build kestcronctl; needs CLI11" ON)
option(KESTCROND_BUILD_TESTS "Build the unit tests" OFF)
option(KESTCROND_BUILD_FUZZERS "Build the fuzz targets; needs clang" OFF)
option(KESTCROND_BUILD_BENCH "Build the benchmarks; needs Google Benchmark" OFF)
option(KESTCROND_WERROR "Treat compiler warnings as errors" OFF)
option(KESTCROND_HARDENING "Build with the protections of the compiler and the linker" ON)
option(KESTCROND_SMALL "Optimise across files and drop unused functions" OFF)
option(KESTCROND_COVERAGE "Measure line coverage" OFF)
set(KESTCROND_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
set(KESTCROND_PLATFORM_LIBRARIES "" CACHE STRING
    "The maker's libraries that provide everything declared in src/platform/*.h; empty: src/platform/posix")

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)

add_library(kest_options INTERFACE)
# 64-bit times, so that schedules work after 2038 on 32-bit machines.
target_compile_definitions(kest_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(kest_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${KESTCROND_WERROR}>:-Werror>)

# An undetected fault must end the program instead of being exploitable. _FORTIFY_SOURCE needs an
# optimising build. The sanitizers check more than all of these.
if(KESTCROND_HARDENING AND NOT KESTCROND_SANITIZE)
    include(CheckPIESupported)
    check_pie_supported()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    include(CheckCXXCompilerFlag)
    foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
        string(MAKE_C_IDENTIFIER "KESTCROND_HAVE${flag}" known)
        check_cxx_compiler_flag(${flag} ${known})
        if(${known})
            target_compile_options(kest_options INTERFACE ${flag})
        endif()
    endforeach()
    target_compile_definitions(kest_options INTERFACE _GLIBCXX_ASSERTIONS)
    # Some compilers define it by default, with another value.
    set(optimising $<NOT:$<CONFIG:Debug,None>>)
    target_compile_options(kest_options INTERFACE
        $<${optimising}:-U_FORTIFY_SOURCE> $<${optimising}:-D_FORTIFY_SOURCE=2>)
    target_link_options(kest_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

if(KESTCROND_SMALL)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
    target_compile_options(kest_options INTERFACE -ffunction-sections -fdata-sections)
    target_link_options(kest_options INTERFACE -Wl,--gc-sections -Wl,-O1 -Wl,--as-needed)
endif()

if(KESTCROND_SANITIZE)
    target_compile_options(kest_options INTERFACE
        -fsanitize=${KESTCROND_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(kest_options INTERFACE -fsanitize=${KESTCROND_SANITIZE})
endif()

if(KESTCROND_BUILD_FUZZERS)
    # Instruments the product, so that the fuzzer sees which branches an input takes.
    target_compile_options(kest_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(KESTCROND_COVERAGE)
    add_library(kest_coverage STATIC tests/coverage/exit.cpp)
    target_link_libraries(kest_options INTERFACE kest_coverage)
    target_compile_options(kest_options INTERFACE --coverage)
    target_link_options(kest_options INTERFACE --coverage -Wl,--wrap=_exit)
endif()
