# SPDX-License-Identifier: Apache-2.0

# The two shared libraries.

file(GLOB_RECURSE module_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/*.cpp")
file(GLOB_RECURSE host_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/host/*.cpp")

function(l2fib_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;INCLUDES")
    add_library(${name} SHARED ${arg_SOURCES})
    target_include_directories(${name} PUBLIC ${arg_INCLUDES})
    target_compile_options(${name} PRIVATE -fvisibility=hidden -fvisibility-inlines-hidden)
    target_link_libraries(${name} PRIVATE l2fib_options)
    # The linker exports instantiated templates of the standard library in spite of hidden visibility. The interface is
    # C, so no mangled name leaves the library.
    target_link_options(${name} PRIVATE "-Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/hide-mangled-names.map")
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/hide-mangled-names.map"
        INSTALL_RPATH "$ORIGIN")
endfunction()

# The compiler binds calls inside a file and calls other libraries without a stub. The loading process may still
# interpose functions of its own.
set(bound_calls -fno-semantic-interposition -fno-plt)

if(L2FIB_HOST)
    l2fib_add_library(l2fib_host
        SOURCES ${host_sources}
        INCLUDES "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}")
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(libcbor REQUIRED IMPORTED_TARGET libcbor)
    target_link_libraries(l2fib_host PRIVATE l2fib_no_undefined l2fib_base PkgConfig::libcbor)
    target_compile_options(l2fib_host PRIVATE ${bound_calls})
endif()

l2fib_add_library(l2fib_mac_edm
    SOURCES ${module_sources}
    INCLUDES "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src")
target_compile_options(l2fib_mac_edm PRIVATE -fno-exceptions -fno-rtti ${bound_calls})
# The module follows the lock attributes of its own interface. Others choose that for themselves.
target_compile_definitions(l2fib_mac_edm PRIVATE L2FIB_CHECKS_TABLE_LOCK)
if(TARGET l2fib_host)
    target_link_libraries(l2fib_mac_edm PRIVATE l2fib_host l2fib_no_undefined)
endif()
