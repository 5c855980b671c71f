# SPDX-License-Identifier: Apache-2.0

foreach(library IN ITEMS l2fib_host l2fib_mac_edm)
    if(TARGET ${library})
        install(TARGETS ${library} LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
    endif()
endforeach()

file(GLOB public_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/*.h")
file(GLOB platform_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/platform/*.h")
install(FILES ${public_headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/l2fib")
install(FILES ${platform_headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/l2fib/platform")

# The host platform is a library of its own in the file, so that another platform can take its place.
set(pc_libs "-ll2fib_mac_edm")
if(TARGET l2fib_host)
    string(APPEND pc_libs " -ll2fib_host")
endif()
# Relative, so that the installed tree may move or be staged elsewhere.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" OUTPUT_VARIABLE pc_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
    OUTPUT_VARIABLE pc_includedir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
    OUTPUT_VARIABLE pc_prefix)
configure_file(cmake/l2fib_mac_edm.pc.in "${PROJECT_BINARY_DIR}/l2fib_mac_edm.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/l2fib_mac_edm.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
