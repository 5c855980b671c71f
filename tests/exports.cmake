# SPDX-License-Identifier: Apache-2.0

# Compares what LIBRARY exports (told by NM) with the names in LIST, one a line, "#" starting a comment. Prints what
# is missing and what is extra.

file(STRINGS "${LIST}" lines)
set(expected)
foreach(line IN LISTS lines)
    string(REGEX REPLACE "#.*" "" line "${line}")
    string(STRIP "${line}" line)
    if(line)
        list(APPEND expected "${line}")
    endif()
endforeach()
if(NOT expected)
    message(FATAL_ERROR "${LIST} lists no name")
endif()

execute_process(COMMAND "${NM}" -D --defined-only "${LIBRARY}"
    OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(exported)
foreach(line IN LISTS lines)
    string(REGEX REPLACE "^.* " "" name "${line}")
    string(REGEX REPLACE "@.*$" "" name "${name}")
    list(APPEND exported "${name}")
endforeach()

set(missing ${expected})
list(REMOVE_ITEM missing ${exported})
set(extra ${exported})
list(REMOVE_ITEM extra ${expected})
foreach(kind IN ITEMS missing extra)
    foreach(name IN LISTS ${kind})
        message("${kind}: ${name}")
    endforeach()
endforeach()
if(missing OR extra)
    message(FATAL_ERROR "${LIBRARY} does not export what ${LIST} lists")
endif()
