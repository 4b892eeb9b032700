# AMD of SuiteSparse: target AMD::AMD.
find_path(AMD_INCLUDE_DIR amd.h PATH_SUFFIXES suitesparse)
find_library(AMD_LIBRARY amd)
mark_as_advanced(AMD_INCLUDE_DIR AMD_LIBRARY)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AMD REQUIRED_VARS AMD_LIBRARY AMD_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "install libsuitesparse-dev (or run tools/install_missing)")
if(AMD_FOUND AND NOT TARGET AMD::AMD)
  add_library(AMD::AMD UNKNOWN IMPORTED)
  set_target_properties(AMD::AMD PROPERTIES IMPORTED_LOCATION "${AMD_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${AMD_INCLUDE_DIR}")
  if(AMD_LIBRARY MATCHES "\\.a$") # an archive does not name what it needs
    find_library(SUITESPARSE_CONFIG_LIBRARY suitesparseconfig)
    mark_as_advanced(SUITESPARSE_CONFIG_LIBRARY)
    if(SUITESPARSE_CONFIG_LIBRARY)
      set_property(TARGET AMD::AMD APPEND PROPERTY INTERFACE_LINK_LIBRARIES "${SUITESPARSE_CONFIG_LIBRARY}" m)
    endif()
  endif()
endif()
