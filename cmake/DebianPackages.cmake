# SPDX-License-Identifier: MIT
# libpellox1, libpellox-dev and pellox, as Debian's policy wants them.

# With Qt 6 the library has the same soname and another binary interface. So its packages have names
# of their own and stay away from the others': no host gets a library that is not for its Qt.
set(library_package libpellox${PROJECT_VERSION_MAJOR})
set(development_package libpellox-dev)
if(PELLOX_QT_MAJOR_VERSION EQUAL 6)
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONFLICTS ${library_package})
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_CONFLICTS ${development_package})
    string(APPEND library_package -qt6)
    string(APPEND development_package -qt6)
endif()
set(CPACK_COMPONENTS_ALL library development program)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE pellox)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${PELLOX_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_PROGRAM_DEPENDS library)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
# A library is announced to ldconfig by a trigger. CPack would write scripts that call it, unless
# scripts of that name are listed; those that are listed and do not exist are left out.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/triggers /nonexistent/postinst /nonexistent/postrm)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
"library that keeps installed game builds up to date
Pellox makes binary deltas between two builds of a game and applies them to
installed copies: checked before anything is touched, all or nothing, and
safe at any instant.

This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
if(PELLOX_QT_MAJOR_VERSION EQUAL 6)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS qt6-base-dev)
else()
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS qtbase5-dev)
endif()
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"library that keeps installed game builds up to date (development)
Pellox makes binary deltas between two builds of a game and applies them to
installed copies: checked before anything is touched, all or nothing, and
safe at any instant.

This package holds the headers, a CMake package, what pkg-config reads, the
guides and examples.")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME pellox)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
# 7zr, which the library looks for beside the program.
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "p7zip | 7zip")
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION
"keeps installed game builds up to date
Pellox makes binary deltas between two builds of a game and applies them to
installed copies: checked before anything is touched, all or nothing, and
safe at any instant.

This package holds the program, for the publisher and for the player.")

if(PELLOX_QT_MAJOR_VERSION EQUAL 6)
    set(overrides ${CMAKE_CURRENT_BINARY_DIR}/packaging/overrides)
    file(WRITE ${overrides} "# The name without a suffix is that of the package with Qt 5.\n"
        "${library_package}: package-name-doesnt-match-sonames libPellox${PROJECT_VERSION_MAJOR}\n")
    install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME ${library_package} COMPONENT library)
endif()

# What the policy asks of every package: the licence and the changelogs, compressed.
find_program(GZIP gzip REQUIRED)
mark_as_advanced(GZIP)
set(package_files ${CMAKE_CURRENT_BINARY_DIR}/packaging)
# SOURCE_DATE_EPOCH makes this the date of the source.
string(TIMESTAMP package_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${package_files}/changelog.Debian @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${package_files}/changelog COPYONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${package_files}/copyright COPYONLY)
execute_process(COMMAND ${GZIP} -9nf changelog changelog.Debian
    WORKING_DIRECTORY ${package_files} COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} name)
    install(
        FILES ${package_files}/copyright ${package_files}/changelog.gz ${package_files}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME}
        COMPONENT ${component})
endforeach()
install(CODE "
    set(share \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}\")
    file(GLOB manuals \"\${share}/man/man1/pellox*.1\")
    if(manuals)
        execute_process(COMMAND ${GZIP} -9nf \${manuals} COMMAND_ERROR_IS_FATAL ANY)
    endif()
    # Debian's zsh looks for what packages bring in a place of its own.
    if(EXISTS \"\${share}/zsh/site-functions\")
        file(RENAME \"\${share}/zsh/site-functions\" \"\${share}/zsh/vendor-completions\")
    endif()"
    COMPONENT program)
