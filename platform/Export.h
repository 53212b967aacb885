// Symbol visibility and data-section placement, spelled for the compiler at hand.
//
//   QS_EXPORT / QS_IMPORT       a symbol offered by / taken from a shared library
//   QS_DATA_SECTION(name)       puts the object that follows into the writable section `name` of the module file and
//                               keeps it there although no code refers to it; use with QS_DECLARE_DATA_SECTION(name)
//                               once before it in the same file
#pragma once

#ifdef _WIN32
#define QS_EXPORT __declspec(dllexport)
#define QS_IMPORT __declspec(dllimport)
#else
#define QS_EXPORT __attribute__((visibility("default")))
#define QS_IMPORT __attribute__((visibility("default")))
#endif

#if defined(_MSC_VER) && !defined(__clang__)
#define QS_PRAGMA(text) __pragma(text)
#define QS_DECLARE_DATA_SECTION(name) QS_PRAGMA(section(name, read, write))
#define QS_DATA_SECTION(name) __declspec(allocate(name))
#else
#define QS_DECLARE_DATA_SECTION(name)                                                                                  \
    static_assert(sizeof(name) <= 9, "a section name of a PE file has at most 8 characters")
#define QS_DATA_SECTION(name) __attribute__((section(name), used))
#endif
