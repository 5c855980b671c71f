# SPDX-License-Identifier: Apache-2.0

# Compiler flags shared by every target of ours, as two interface targets: one for warnings and sanitizers, one for
# the way shared libraries are linked.

set(common_warnings
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-align -Wcast-qual -Wformat=2
    -Wimplicit-fallthrough -Wundef -Wvla)
if(L2FIB_WERROR)
    list(APPEND common_warnings -Werror)
endif()
set(c_warnings -Wstrict-prototypes -Wmissing-prototypes)
set(cxx_warnings -Wnon-virtual-dtor -Woverloaded-virtual)
set(clang_warnings -Wthread-safety)
set(gcc_warnings -Wduplicated-cond -Wlogical-op)
# g++ 12 warns falsely of overlapping copies in the standard library's own strings when it optimises with -O3.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    list(APPEND gcc_warnings -Wno-restrict)
endif()

add_library(l2fib_options INTERFACE)
target_compile_options(l2fib_options INTERFACE
    ${common_warnings}
    "$<$<COMPILE_LANGUAGE:C>:${c_warnings}>"
    "$<$<COMPILE_LANGUAGE:CXX>:${cxx_warnings}>"
    "$<$<CXX_COMPILER_ID:GNU>:${gcc_warnings}>"
    "$<$<CXX_COMPILER_ID:Clang>:${clang_warnings}>")
target_link_libraries(l2fib_options INTERFACE Threads::Threads)

if(L2FIB_SANITIZE)
    # Global, so that what we link with statically is instrumented too. The vptr check needs RTTI, which the module
    # is built without.
    add_compile_options(-fsanitize=${L2FIB_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${L2FIB_SANITIZE})
    if(L2FIB_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize=vptr)
    endif()
endif()

# A shared library must name everything it needs. With clang the sanitizer runtime lives in the executable only, so
# there a library is bound to have undefined symbols.
add_library(l2fib_no_undefined INTERFACE)
if(NOT (L2FIB_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang"))
    target_link_options(l2fib_no_undefined INTERFACE -Wl,--no-undefined)
endif()
