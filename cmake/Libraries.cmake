# The two shared libraries. Each is made of an object library, which tests of internals link directly: the shared
# library hides what is not exported.

file(GLOB_RECURSE module_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/*.cpp")
file(GLOB host_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/host/*.cpp")

function(l2fib_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;INCLUDES")
    add_library(${name}_objects OBJECT ${arg_SOURCES})
    target_include_directories(${name}_objects PUBLIC ${arg_INCLUDES})
    target_compile_options(${name}_objects PRIVATE -fvisibility=hidden -fvisibility-inlines-hidden)
    target_link_libraries(${name}_objects PRIVATE l2fib_options)

    add_library(${name} SHARED)
    target_include_directories(${name} PUBLIC ${arg_INCLUDES})
    target_link_libraries(${name} PRIVATE ${name}_objects l2fib_options)
    # C++ templates of the standard library that are instantiated here would be exported in spite of hidden
    # visibility: the interface is C, so no mangled name leaves the library.
    target_link_options(${name} PRIVATE "-Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/hide-mangled-names.map")
    set_target_properties(${name} PROPERTIES
        LINKER_LANGUAGE CXX
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/hide-mangled-names.map"
        INSTALL_RPATH "$ORIGIN")
endfunction()

if(L2FIB_HOST AND host_sources)
    l2fib_add_library(l2fib_host
        SOURCES ${host_sources}
        INCLUDES "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}")
    target_link_libraries(l2fib_host PRIVATE l2fib_no_undefined)
    if(EXISTS "${PROJECT_SOURCE_DIR}/host/parcel.cpp")
        find_package(PkgConfig REQUIRED)
        pkg_check_modules(libcbor REQUIRED IMPORTED_TARGET libcbor)
        target_link_libraries(l2fib_host_objects PRIVATE PkgConfig::libcbor)
    endif()
endif()

if(module_sources)
    l2fib_add_library(l2fib_mac_edm
        SOURCES ${module_sources}
        INCLUDES "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src")
    # Calls inside a file are bound there, and calls of the platform go without a stub; the loading process may still put
    # functions of its own in the place of either.
    target_compile_options(l2fib_mac_edm_objects PRIVATE
        -fno-exceptions -fno-rtti -fno-semantic-interposition -fno-plt)
    if(TARGET l2fib_host)
        target_link_libraries(l2fib_mac_edm PRIVATE l2fib_host l2fib_no_undefined)
    endif()
endif()
