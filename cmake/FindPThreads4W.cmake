# POSIX threads for Windows, for compilers that do not bring them: target PThreads4W::PThreads4W.
find_path(PThreads4W_INCLUDE_DIR pthread.h)
find_library(PThreads4W_LIBRARY NAMES pthreadVC3 pthreadVC2 pthreads4w)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(PThreads4W REQUIRED_VARS PThreads4W_LIBRARY PThreads4W_INCLUDE_DIR)
mark_as_advanced(PThreads4W_INCLUDE_DIR PThreads4W_LIBRARY)
if(PThreads4W_FOUND AND NOT TARGET PThreads4W::PThreads4W)
    add_library(PThreads4W::PThreads4W UNKNOWN IMPORTED)
    # The compiler's own headers have the structure that older versions of the library would declare again.
    set_target_properties(PThreads4W::PThreads4W PROPERTIES IMPORTED_LOCATION "${PThreads4W_LIBRARY}"
                                                            INTERFACE_INCLUDE_DIRECTORIES "${PThreads4W_INCLUDE_DIR}"
                                                            INTERFACE_COMPILE_DEFINITIONS HAVE_STRUCT_TIMESPEC)
endif()
