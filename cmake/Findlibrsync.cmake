# SPDX-License-Identifier: MIT
# Finds librsync, which ships neither a CMake package nor a pkg-config file.
# Defines the target librsync::librsync and librsync_VERSION.

find_path(librsync_INCLUDE_DIR librsync.h)
find_library(librsync_LIBRARY NAMES rsync librsync)
mark_as_advanced(librsync_INCLUDE_DIR librsync_LIBRARY)

# The headers do not tell the version; rs_librsync_version in the library does.
if(librsync_LIBRARY AND NOT DEFINED librsync_VERSION)
    file(STRINGS ${librsync_LIBRARY} version_string REGEX "librsync [0-9]+\\.[0-9]+" LIMIT_COUNT 1)
    string(REGEX MATCH "[0-9]+\\.[0-9.]+" version "${version_string}")
    set(librsync_VERSION "${version}" CACHE INTERNAL "")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(librsync
    REQUIRED_VARS librsync_LIBRARY librsync_INCLUDE_DIR
    VERSION_VAR librsync_VERSION)

if(librsync_FOUND AND NOT TARGET librsync::librsync)
    add_library(librsync::librsync UNKNOWN IMPORTED)
    set_target_properties(librsync::librsync PROPERTIES
        IMPORTED_LOCATION ${librsync_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${librsync_INCLUDE_DIR})
endif()
