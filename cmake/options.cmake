# What can be chosen at configure time, and the compiler settings that every target shares.

option(KESTCROND_BUILD_TESTS "Build the unit tests" OFF)
option(KESTCROND_WERROR "Treat compiler warnings as errors" OFF)
option(KESTCROND_COVERAGE "Count which lines run" OFF)
set(KESTCROND_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
set(KESTCROND_PLATFORM_LIBRARIES "" CACHE STRING
    "The maker's libraries that provide everything declared in platform/*.h; empty: platform/posix")

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)

add_library(kest_options INTERFACE)
# Schedules reach past 2038 on 32-bit machines too.
target_compile_definitions(kest_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(kest_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${KESTCROND_WERROR}>:-Werror>)

if(KESTCROND_SANITIZE)
    target_compile_options(kest_options INTERFACE
        -fsanitize=${KESTCROND_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(kest_options INTERFACE -fsanitize=${KESTCROND_SANITIZE})
endif()

if(KESTCROND_COVERAGE)
    add_library(kest_coverage STATIC tests/coverage/exit.cpp)
    target_link_libraries(kest_options INTERFACE kest_coverage)
    target_compile_options(kest_options INTERFACE --coverage)
    target_link_options(kest_options INTERFACE --coverage -Wl,--wrap=_exit)
endif()
