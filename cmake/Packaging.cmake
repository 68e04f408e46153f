# SPDX-License-Identifier: MIT
# The documents of an installation, and what CPack makes of it: Debian packages (preset "package"), a
# tarball to unpack anywhere (preset "tarball") and the source. scripts/package.sh makes them all.

set(PELLOX_PACKAGE_MAINTAINER "The Pellox developers <pellox@example.org>"
    CACHE STRING "Who answers for the packages: Name <mail@address>")
set(PELLOX_PACKAGE_RELEASE 0pellox1 CACHE STRING "The packages' release, after the version")
mark_as_advanced(PELLOX_PACKAGE_MAINTAINER PELLOX_PACKAGE_RELEASE)
set(CPACK_GENERATOR TGZ CACHE STRING "What cpack makes: TGZ or DEB")

set(CPACK_PACKAGE_NAME pellox)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${PELLOX_PACKAGE_MAINTAINER})
# The components describe themselves.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_FILE_NAME pellox-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
if(PELLOX_QT_MAJOR_VERSION EQUAL 6)
    string(APPEND CPACK_PACKAGE_FILE_NAME -qt6)
endif()

set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME pellox-${PROJECT_VERSION})
set(CPACK_SOURCE_IGNORE_FILES
    "^${PROJECT_SOURCE_DIR}/build[^/]*/" /\\.git/ /\\.cache/ /CMakeUserPresets\\.json$ /compile_commands\\.json$)

if("DEB" IN_LIST CPACK_GENERATOR)
    include(DebianPackages)
    set(documents_dir ${CMAKE_INSTALL_DATADIR}/doc/${development_package})
else()
    set(documents_dir ${CMAKE_INSTALL_DOCDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${documents_dir} COMPONENT library)
endif()
# As in the source, so that what the headers name "docs/library.md" is found, and links work.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
    DESTINATION ${documents_dir} COMPONENT development
    PATTERN docs/CMakeLists.txt EXCLUDE
    PATTERN *.dox EXCLUDE
    PATTERN *.in EXCLUDE
    PATTERN __pycache__ EXCLUDE)
include(CPack)
