// Registers a device class with the host's class system.
//
// Each class has three things, all made by QS_REGISTER_CLASS in its .cpp:
//   sm_class<Class>            class information, constructed when the module loads
//   QS_ConstructorFor<Class>   unmangled constructor export
//   two text records           in the writable section "qsclass" of the module file, from which a plug-in loader learns
//                              what the module offers without running code of it
//
// The records are UTF-16LE, NUL-terminated, and zero-filled to the next 16-byte boundary; the second record of a class
// follows its first at that boundary. Loaders match the texts byte for byte: in the parent list `runtype` stands before
// `value`, in the version record after it, and there are always nine parents.
#pragma once

#include "device/QsStimApi.h"
#include "host/QsSystem.h"

#define QS_CLASS_RECORD_SECTION "qsclass"

namespace QsClassRecords {

// The pair of records of one class, in one object: compilers put separate objects of a section in any order. N1 and N2
// count the terminators.
template <std::size_t N1, std::size_t N2>
struct SPair
{
    alignas(16) char16_t parents[N1];
    alignas(16) char16_t version[N2];
};
template <std::size_t N1, std::size_t N2>
SPair(const char16_t (&)[N1], const char16_t (&)[N2]) -> SPair<N1, N2>;

} // namespace QsClassRecords

#define QS_TO_U16_(text) u##text
#define QS_TO_U16(text) QS_TO_U16_(text)
#define QS_TO_WIDE_(text) L##text
#define QS_TO_WIDE(text) QS_TO_WIDE_(text)

#define QS_NO_PARENT_RECORD_(n) u"<m_parent" QS_TO_U16(#n) u" runtype=\"CQsStringW\" value=\"\"/>"

#define QS_CLASS_PARENTS_RECORD(Class, parent)                                                                         \
    u"<variant version=\"1.0\"><" QS_TO_U16(                                                                           \
        #Class) u" runtype=\"RQsRttiClass\">"                                                                          \
                u"<m_parent1 runtype=\"CQsStringW\" value=\"" QS_TO_U16(parent) u"\"/>" QS_NO_PARENT_RECORD_(2)        \
                    QS_NO_PARENT_RECORD_(3) QS_NO_PARENT_RECORD_(4) QS_NO_PARENT_RECORD_(5) QS_NO_PARENT_RECORD_(6)    \
                        QS_NO_PARENT_RECORD_(7) QS_NO_PARENT_RECORD_(8)                                                \
                            QS_NO_PARENT_RECORD_(9) u"</" QS_TO_U16(#Class) u"></variant>"

#define QS_CLASS_VERSION_RECORD(Class, version, friendlyName)                                                          \
    u"<variant version=\"1.0\"><" QS_TO_U16(                                                                           \
        #Class) u" runtype=\"CQsListVariant\">"                                                                        \
                u"<m_version value=\"" QS_TO_U16(#version) u"\" runtype=\"qs_int32\"/>"                                \
                                                           u"<m_friendlyName value=\"" QS_TO_U16(                      \
                                                               friendlyName) u"\" runtype=\"CQsStringW\"/>"            \
                                                                             u"</" QS_TO_U16(#Class) u"></variant>"

// Once in the .cpp of the class, at namespace scope. `parent` and `friendlyName` are narrow string literals.
// clang-format off
#define QS_REGISTER_CLASS(Class, parent, friendlyName)                                                                 \
    QS_KEPT_DATA(QS_CLASS_RECORD_SECTION, qs_classRecords##Class)                                                      \
    QsClassRecords::SPair qs_classRecords##Class = {QS_CLASS_PARENTS_RECORD(Class, parent),                            \
                                                    QS_CLASS_VERSION_RECORD(Class, 1, friendlyName)};                  \
    extern "C" QS_EXPORT IQsInterface* QS_ConstructorFor##Class(const char* file, unsigned int line)                   \
    {                                                                                                                  \
        return new (file, line) Class;                                                                                 \
    }                                                                                                                  \
    extern QS_EXPORT CQsClassInfo sm_class##Class;                                                                     \
    CQsClassInfo sm_class##Class(#Class, parent, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,        \
                                 nullptr, sizeof(Class), &QS_ConstructorFor##Class)
// clang-format on
#define QS_REGISTER_STIMULATION_CLASS(Class, friendlyName)                                                             \
    QS_REGISTER_CLASS(Class, "IQsStimulationDevice", friendlyName)

// The class name as wide text, exported as sm_classWcs<Class> for hosts that create the class by its wide name. Once in
// the .cpp of the class, whose header declares the object.
#define QS_EXPORT_WIDE_CLASS_NAME(Class)                                                                               \
    extern QS_EXPORT const wchar_t sm_classWcs##Class[];                                                               \
    const wchar_t sm_classWcs##Class[] = QS_TO_WIDE(#Class)
