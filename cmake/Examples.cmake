# SPDX-License-Identifier: Apache-2.0

# Each examples/*.c is one C11 program: the interface as an integrator sees it.

if(L2FIB_HOST)
    file(GLOB example_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/examples/*.c")
    foreach(source IN LISTS example_sources)
        cmake_path(GET source STEM name)
        add_executable(${name} ${source})
        target_link_libraries(${name} PRIVATE l2fib_mac_edm l2fib_host l2fib_options)
        set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/examples")
    endforeach()
endif()
