// Symbol visibility and data-section placement, spelled for the compiler at hand.
//
//   QS_EXPORT / QS_IMPORT       a symbol offered by / taken from a shared library
//   QS_KEPT_DATA(section, symbol)
//                               begins the definition of the object `symbol`: puts it into the writable section of the
//                               module file and keeps it there although no code refers to it. It is initialised by
//                               constants, and no other object of the module has its name
#pragma once

#ifdef _WIN32
#define QS_EXPORT __declspec(dllexport)
#define QS_IMPORT __declspec(dllimport)
#else
#define QS_EXPORT __attribute__((visibility("default")))
#define QS_IMPORT __attribute__((visibility("default")))
#endif

// Names of sections are cut in a PE file; a longer one is looked up elsewhere, which loaders do not do.
#define QS_ASSERT_SECTION_NAME(name)                                                                                   \
    static_assert(sizeof(name) <= 9, "a section name of a PE file has at most 8 characters")

#ifdef _MSC_VER
// An object that nothing refers to is dropped unless the linker is told its name, which therefore must be a plain one.
#define QS_KEPT_DATA(section_, symbol)                                                                                 \
    QS_ASSERT_SECTION_NAME(section_);                                                                                  \
    __pragma(section(section_, read, write))                                                                           \
        __pragma(comment(linker, "/include:" #symbol)) extern "C" __declspec(allocate(section_))
#else
#define QS_KEPT_DATA(section_, symbol)                                                                                 \
    QS_ASSERT_SECTION_NAME(section_);                                                                                  \
    __attribute__((section(section_), used)) static
#endif
