# A CBLAS library: target CBLAS::CBLAS. OpenBLAS where it is there, without threads of its own if there is a choice: the
# products are of 3x3 matrices, and a host application has no use for another library's threads.
find_path(CBLAS_INCLUDE_DIR cblas.h PATH_SUFFIXES openblas-serial openblas)
find_library(CBLAS_LIBRARY NAMES openblas libopenblas cblas PATH_SUFFIXES openblas-serial)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(CBLAS REQUIRED_VARS CBLAS_LIBRARY CBLAS_INCLUDE_DIR)
mark_as_advanced(CBLAS_INCLUDE_DIR CBLAS_LIBRARY)
if(CBLAS_FOUND AND NOT TARGET CBLAS::CBLAS)
    add_library(CBLAS::CBLAS UNKNOWN IMPORTED)
    set_target_properties(CBLAS::CBLAS PROPERTIES IMPORTED_LOCATION "${CBLAS_LIBRARY}"
                                                  INTERFACE_INCLUDE_DIRECTORIES "${CBLAS_INCLUDE_DIR}")
endif()
