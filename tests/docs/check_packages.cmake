# SPDX-License-Identifier: MIT
# docs/embed.md names the packages that "scripts/setup.sh build" installs. ROOT is the source.
file(READ ${ROOT}/docs/embed.md page)
file(READ ${ROOT}/scripts/setup.sh script)
if(NOT script MATCHES "\n    build\\) echo ([^;]+) ;;")
    message(FATAL_ERROR "scripts/setup.sh does not tell what it installs to build")
endif()
string(REPLACE " " ";" packages "${CMAKE_MATCH_1}")
foreach(package IN LISTS packages)
    string(FIND "${page}" "`${package}`" place)
    if(place EQUAL -1)
        message(SEND_ERROR "docs/embed.md does not name ${package}")
    endif()
endforeach()
