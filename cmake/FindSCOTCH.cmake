# SCOTCH 7: target SCOTCH::SCOTCH, with its handler of errors.
find_path(SCOTCH_INCLUDE_DIR scotch.h PATH_SUFFIXES scotch)
find_library(SCOTCH_LIBRARY scotch)
find_library(SCOTCHERR_LIBRARY scotcherr)
mark_as_advanced(SCOTCH_INCLUDE_DIR SCOTCH_LIBRARY SCOTCHERR_LIBRARY)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SCOTCH REQUIRED_VARS SCOTCH_LIBRARY SCOTCHERR_LIBRARY SCOTCH_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "install libscotch-dev (or run tools/install_missing)")
if(SCOTCH_FOUND AND NOT TARGET SCOTCH::SCOTCH)
  add_library(SCOTCH::SCOTCH UNKNOWN IMPORTED)
  set_target_properties(SCOTCH::SCOTCH PROPERTIES IMPORTED_LOCATION "${SCOTCH_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${SCOTCH_INCLUDE_DIR}" INTERFACE_LINK_LIBRARIES "${SCOTCHERR_LIBRARY}")
  if(SCOTCH_LIBRARY MATCHES "\\.a$") # an archive does not name what it needs
    set_property(TARGET SCOTCH::SCOTCH APPEND PROPERTY INTERFACE_LINK_LIBRARIES z m pthread)
  endif()
endif()
