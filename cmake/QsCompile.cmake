# Compiler settings of every target of this project.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(WIN32)
    # The files are named alike whichever compiler made them: qsstimulation.dll, qshost.dll.
    set(CMAKE_SHARED_LIBRARY_PREFIX "")
    set(CMAKE_SHARED_MODULE_PREFIX "")
endif()
# Installed libraries find each other where they lie.
set(CMAKE_INSTALL_RPATH "$ORIGIN")

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

find_program(QS_CCACHE ccache)
if(QS_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${QS_CCACHE})
endif()

# "address" (with undefined behaviour and leaks) or "thread"; empty for none.
set(QS_SANITIZE "" CACHE STRING "Sanitizers to build with")
if(QS_SANITIZE STREQUAL "address")
    set(qs_sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        list(APPEND qs_sanitizers -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/cmake/sanitizer-ignore.txt)
    endif()
elseif(QS_SANITIZE STREQUAL "thread")
    set(qs_sanitizers -fsanitize=thread -fno-omit-frame-pointer)
elseif(QS_SANITIZE)
    message(FATAL_ERROR "QS_SANITIZE is \"${QS_SANITIZE}\"; expected address or thread")
endif()
if(qs_sanitizers)
    add_compile_options(${qs_sanitizers})
    add_link_options(${qs_sanitizers})
endif()

# Warnings, for our own code. qs_target(name) applies them with the include root.
function(qs_target target)
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
    if(MSVC)
        # Warnings are no errors here: which ones this compiler has is not known. Without those of exported classes with
        # members or bases of the standard library's, which host and plug-ins share; of the blanks that an alignment
        # makes; of conditions that are constant on one system alone.
        target_compile_options(${target} PRIVATE /W4 /wd4251 /wd4275 /wd4324 /wd4127 /permissive- /utf-8 /bigobj
                                                 /Zc:__cplusplus)
        if(CMAKE_CXX_COMPILER_ID STREQUAL "MSVC")
            target_compile_options(${target} PRIVATE /Zc:preprocessor)
        endif()
        target_compile_definitions(${target} PRIVATE NOMINMAX WIN32_LEAN_AND_MEAN UNICODE _UNICODE
                                                     _CRT_SECURE_NO_WARNINGS)
    else()
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
                                                 -Woverloaded-virtual -Werror
                                                 -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
        if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
            target_compile_options(${target} PRIVATE -Wthread-safety -Wno-gnu-zero-variadic-macro-arguments)
        endif()
    endif()
endfunction()
