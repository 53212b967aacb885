// The host's system library: root interface and class registry, strings, variants, geometry values, log, clock,
// translation.
//
// Everything here may be called from any thread unless a line says otherwise; value types are not shared between
// threads without a lock of the caller's.
#pragma once

#include "host/QsHostApi.h"

#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using qs_int32 = std::int32_t;

// Status values. Callers compare with QS_OK; the values without a name in the host's list are given by number where
// they are returned, with their meaning beside them.
constexpr qs_int32 QS_OK = 0;
constexpr qs_int32 QS_ERR_FAIL = -9;

// ---------------------------------------------------------------------------------------------------------- strings

// Wide value string. Order and equality compare UTF-16 code units, also where wchar_t has 32 bits: a character outside
// the basic plane sorts as its surrogates do. A null pointer stands for the empty text.
class QS_HOST_API CQsStringW
{
public:
    CQsStringW() = default;
    CQsStringW(const wchar_t* text);
    CQsStringW(const wchar_t* text, std::size_t length);
    explicit CQsStringW(std::wstring text) : m_text(std::move(text)) {}

    const wchar_t* c_str() const noexcept { return m_text.c_str(); }
    const std::wstring& Std() const noexcept { return m_text; }
    std::size_t GetLength() const noexcept { return m_text.size(); }
    bool IsEmpty() const noexcept { return m_text.empty(); }

    // Ordinal and case-sensitive; negative, 0 (equal) or positive.
    int Compare(const wchar_t* text) const noexcept;
    int Compare(const CQsStringW& text) const noexcept;

    // Position of the first occurrence at or after `from`, or npos. The empty text is found at `from`.
    static constexpr std::size_t npos = std::wstring::npos;
    std::size_t Find(const wchar_t* text, std::size_t from = 0) const noexcept;
    std::size_t Find(const CQsStringW& text, std::size_t from = 0) const noexcept { return Find(text.c_str(), from); }
    CQsStringW Left(std::size_t count) const { return CQsStringW(m_text.substr(0, count)); }

    CQsStringW& operator+=(const CQsStringW& text);
    CQsStringW& operator+=(const wchar_t* text);

    // printf-style, with one meaning on every system: %s and %ls are wide, %hs and %S narrow (UTF-8), %c a wide
    // character, %p all digits of the address in capitals, numbers as in the C locale. Conversions: d i u x X c s S f F
    // e E g G p %, flags # 0 - + space, width, precision, length hh, h, l, ll, I32, I64, j, z, t, L. A null text prints
    // "(null)"; an unknown conversion is copied as it stands.
    static CQsStringW Format(const wchar_t* format, ...);
    static CQsStringW FormatV(const wchar_t* format, std::va_list arguments);

    // UTF-8 both ways; malformed input becomes U+FFFD, nothing is dropped.
    std::string ToUtf8() const;
    static CQsStringW FromUtf8(const std::string& text);

private:
    std::wstring m_text;
};

inline CQsStringW operator+(CQsStringW a, const CQsStringW& b)
{
    return a += b;
}
inline bool operator==(const CQsStringW& a, const CQsStringW& b) noexcept
{
    return a.Compare(b) == 0;
}
inline bool operator==(const CQsStringW& a, const wchar_t* b) noexcept
{
    return a.Compare(b) == 0;
}
inline bool operator!=(const CQsStringW& a, const CQsStringW& b) noexcept
{
    return a.Compare(b) != 0;
}
inline bool operator!=(const CQsStringW& a, const wchar_t* b) noexcept
{
    return a.Compare(b) != 0;
}
inline bool operator<(const CQsStringW& a, const CQsStringW& b) noexcept
{
    return a.Compare(b) < 0;
}

// 8-bit value string for class and interface names; compares bytes.
class QS_HOST_API CQsStringA
{
public:
    CQsStringA() = default;
    CQsStringA(const char* text) : m_text(text != nullptr ? text : "") {}

    const char* c_str() const noexcept { return m_text.c_str(); }
    bool IsEmpty() const noexcept { return m_text.empty(); }
    int Compare(const char* text) const noexcept { return m_text.compare(text != nullptr ? text : ""); }
    int Compare(const CQsStringA& text) const noexcept { return m_text.compare(text.m_text); }

private:
    std::string m_text;
};

// The host's translation of `text`; the text itself where there is none. `sourceFile` names the file that asks.
QS_HOST_API CQsStringW QS_GetTranslation(const wchar_t* text, const char* sourceFile);

// Number that `text` begins with after blanks ("1.50x" gives 1.5), in the C locale. False, and `value` unchanged,
// without one or when it is too large for a double; "inf" and "nan" are no numbers.
QS_HOST_API bool QS_StringToDouble(const wchar_t* text, double& value);

// Leading decimal digits after blanks and an optional sign; 0 when there are none; saturates.
QS_HOST_API int QS_wtoi(const wchar_t* text);

// Folder of the settings files of plug-ins, absolute, without a separator at its end. Made when it is not there.
QS_HOST_API CQsStringW QS_GetSettingsFolder();

// ------------------------------------------------------------------------------------------------------ time and log

// Monotonic time in milliseconds. The zero point is the host's.
QS_HOST_API double QS_GetTimeCounter();

// Writes one line to the diagnostic log: source unit, line of the source, printf-style text as CQsStringW::Format.
// Never fails and never throws.
QS_HOST_API void DiagOutputExW(const wchar_t* unit, int line, const wchar_t* format, ...);

// True when the log keeps detailed messages and has somewhere to keep them; ask before formatting one.
QS_HOST_API bool QS_DiagIsDetailed();

// -------------------------------------------------------------------------------------------------- classes and RTTI

class CQsClassInfo;

// Root of everything that the class system knows; used as a virtual base.
class QS_HOST_API IQsInterface
{
public:
    virtual ~IQsInterface() = default;
    // Class information of the object, or null for an object that the class system did not create.
    virtual const CQsClassInfo* GetClass() const = 0;
};

// Reference-counted base of registered classes. Objects are born with no reference; Release to 0 destroys.
class QS_HOST_API CQsClass : virtual public IQsInterface
{
public:
    CQsClass();
    ~CQsClass() override;
    CQsClass(const CQsClass&) = delete;
    CQsClass& operator=(const CQsClass&) = delete;

    virtual unsigned AddRef();  // the new count
    virtual unsigned Release(); // the new count; at 0 the object is gone, also one that nobody had referenced
    // The interface of that exact name with one more reference, or null and no reference.
    virtual IQsInterface* QueryInterface(const char* name) = 0;

    // The host's allocator. Null when there is no memory, so that `new (file, line) T` yields null.
    static void* operator new(std::size_t size, const char* file, unsigned line) noexcept;
    static void operator delete(void* memory, const char* file, unsigned line) noexcept;
    static void operator delete(void* memory) noexcept;

private:
    friend struct SQsClassAccess; // the host's own look at the count
    std::atomic<unsigned> m_references{0};
};

// Function that creates an object of one class: null when it could not be allocated.
using QsClassConstructor = IQsInterface* (*)(const char* file, unsigned int line);

// Static description of one class; registers the class while it lives.
class QS_HOST_API CQsClassInfo
{
public:
    // Names are kept by pointer and must outlive the object. Parents that do not exist are null.
    CQsClassInfo(const char* name, const char* parent1, const char* parent2, const char* parent3, const char* parent4,
                 const char* parent5, const char* parent6, const char* parent7, const char* parent8,
                 const char* parent9, std::size_t size, QsClassConstructor constructor);
    ~CQsClassInfo();
    CQsClassInfo(const CQsClassInfo&) = delete;
    CQsClassInfo& operator=(const CQsClassInfo&) = delete;

    static constexpr std::size_t s_parentCount = 9;
    const char* GetName() const noexcept { return m_name; }
    const char* GetParent(std::size_t index) const noexcept
    {
        return index < s_parentCount ? m_parents[index] : nullptr;
    }
    std::size_t GetSize() const noexcept { return m_size; }
    QsClassConstructor GetConstructor() const noexcept { return m_constructor; }

private:
    const char* m_name;
    const char* m_parents[s_parentCount];
    std::size_t m_size;
    QsClassConstructor m_constructor;
};

// One class as the registry lists it.
struct SQsClassEntry
{
    CQsStringA cls;    // class name
    CQsStringW module; // file of the module that holds the class
};

// The class registry.
class QS_HOST_API CQsRTTI
{
public:
    // Creates an object of the class (loading its module when needed) and queries the interface. The result holds one
    // reference. Null when the class is unknown, or its creation or the query failed; then nothing is left behind.
    static IQsInterface* CreateAndQuery(const char* className, const char* interfaceName, const char* file, int line);

    // Null, and objects that are not reference counted, are left alone.
    static void AddRef(IQsInterface* object);
    static void Release(IQsInterface* object);

    // The interface of `object` with one more reference; null when the object is null or does not answer.
    static IQsInterface* Query(IQsInterface* object, const char* interfaceName);

    // Appends every registered class that names `interfaceName` among its parents, in registry order. A filter that is
    // not empty must be among the parents too.
    static void FindClasses(const char* interfaceName, const char* filter2, const char* filter3,
                            std::vector<SQsClassEntry>& classes);
};

// --------------------------------------------------------------------------------------------------- geometry values

template <class T>
struct CQsPointBase
{
    T x = T();
    T y = T();

    // Rotates about (centreX, centreY), counter-clockwise in a frame whose y points up [rad].
    void Rotate(T centreX, T centreY, double angle)
    {
        const double c = std::cos(angle);
        const double s = std::sin(angle);
        const double dx = static_cast<double>(x) - static_cast<double>(centreX);
        const double dy = static_cast<double>(y) - static_cast<double>(centreY);
        x = static_cast<T>(static_cast<double>(centreX) + dx * c - dy * s);
        y = static_cast<T>(static_cast<double>(centreY) + dx * s + dy * c);
    }
};

template <class T>
struct CQsSizeBase
{
    T cx = T();
    T cy = T();
};

template <class T>
struct CQsRectBase
{
    T left = T();
    T top = T();
    T right = T();
    T bottom = T();

    T Width() const { return right - left; }
    T Height() const { return bottom - top; }
    CQsPointBase<T> Center() const { return {(left + right) / 2, (top + bottom) / 2}; }
};

// ---------------------------------------------------------------------------------------------------------- variants

// Tree of named, typed values. A tree is a list of items in order of appending; an item is a double, a bool, an
// unsigned 32-bit number or a list of its own. Absent names read as the default value (0.0, 0, false). Never throws for
// a missing name or another type.
class QS_HOST_API CQsVariant
{
public:
    enum class Type
    {
        List,
        Double,
        Bool,
        Unsigned
    };

    CQsVariant() = default; // an empty list
    CQsVariant(double value, const wchar_t* name);
    CQsVariant(bool value, const wchar_t* name);
    CQsVariant(std::uint32_t value, const wchar_t* name);

    // Whether an assignment may change the type of an existing item. Returns the previous setting; off at first.
    bool EnableTypeChange(bool enable);
    // Removes every item of the list. A value becomes an empty list, which type changes must allow; else nothing
    // happens.
    void ClearList();
    void Append(const CQsVariant& item); // to a value: as ClearList, then the item

    Type GetType() const { return m_type; }
    const CQsStringW& GetName() const { return m_name; }
    std::size_t GetCount() const { return m_items.size(); }
    const CQsVariant& GetItem(std::size_t index) const; // the default value when there is no such item

    const CQsVariant* FindItem(const wchar_t* name) const;   // first item of that name at the first level, or null
    const CQsVariant& operator[](const wchar_t* name) const; // the default value when there is no such item

    double ToDouble() const;
    bool ToBool() const;
    std::uint32_t ToUnsigned() const; // negative and not finite 0; saturates

private:
    Type m_type = Type::List;
    CQsStringW m_name;
    double m_double = 0.0;
    std::uint32_t m_unsigned = 0;
    bool m_bool = false;
    bool m_typeChange = false;
    std::vector<CQsVariant> m_items;
};

struct SQsLiteLevel; // a level of the store behind both lite variants

// Writer of a flat keyed store with levels. Keys keep the order in which they were set; setting a key of the current
// level again replaces its value. Levels of equal, also empty, names may stand beside each other.
class QS_HOST_API CQsLiteVariantW
{
public:
    CQsLiteVariantW();
    ~CQsLiteVariantW();
    CQsLiteVariantW(const CQsLiteVariantW&) = delete;
    CQsLiteVariantW& operator=(const CQsLiteVariantW&) = delete;

    void SetDouble(const wchar_t* key, double value);
    void SetBool(const wchar_t* key, bool value);
    void SetUnsigned(const wchar_t* key, std::uint32_t value);
    void SetBinary(const wchar_t* key, const void* bytes, std::size_t count);
    void SetString(const wchar_t* key, const CQsStringW& value);

    void OpenLevel(const wchar_t* name);
    void CloseLevel(); // nothing at the top level

private:
    friend class CQsLiteVariantR;
    std::shared_ptr<SQsLiteLevel> m_root;
    std::vector<SQsLiteLevel*> m_path;
};

// Reader of such a store. A missing key, or one of a type that does not convert, yields the default that is given. To
// double convert unsigned and bool, to bool unsigned, to int unsigned and bool.
//
// A store is kept in a file as docs/formats.md describes it. Values come back bit for bit, levels and values in their
// order. Every operation on files returns a status and writes one line to the log when it fails with -9.
class QS_HOST_API CQsLiteVariantR
{
public:
    CQsLiteVariantR();                                       // an empty store
    explicit CQsLiteVariantR(const CQsLiteVariantW& writer); // a copy of what the writer holds, every level closed
    ~CQsLiteVariantR();
    CQsLiteVariantR(const CQsLiteVariantR&) = delete;
    CQsLiteVariantR& operator=(const CQsLiteVariantR&) = delete;

    double GetDouble(const wchar_t* key, double defaultValue) const;
    bool GetBool(const wchar_t* key, bool defaultValue) const;
    qs_int32 GetInt(const wchar_t* key, qs_int32 defaultValue) const; // an unsigned value converts bit by bit
    CQsStringW GetString(const wchar_t* key, const CQsStringW& defaultValue) const;
    // Copies at most `count` bytes and returns how many the store holds; 0 for a missing key. Bytes beyond them are
    // left as they are.
    std::size_t GetBinary(const wchar_t* key, void* bytes, std::size_t count) const;

    std::size_t GetEntryCount() const;                // entries (values and levels) of the current level
    CQsStringW GetEntryName(std::size_t index) const; // empty when there is no such entry
    bool EnterLevel(const wchar_t* name);             // first level of that name; false: stays where it is
    bool EnterEntry(std::size_t index);               // false when the entry is missing or a value: stays where it is
    void LeaveLevel();                                // nothing at the top level

    // Replaces what the store holds by the file's content, every level closed. 0; -13 when there is no such file; -9
    // when it cannot be read, is torn, or is no settings file. Then the store is unchanged. `bCheck` false: an end sum
    // that does not fit is let through. `bMissingIsEmpty`: a missing file is an empty store, 0.
    qs_int32 LoadFromFile(const wchar_t* path, bool bCheck, bool bMissingIsEmpty);

    // Replaces the file atomically: at every moment, and after a crash, it holds the old or the new content whole. A
    // file that is there and is not a whole settings file is kept beside it, as <path>.damaged, .damaged2, ... 0; -9
    // when it cannot be written: then the old file is as it was. `bCompact`: without indentation. `bSync`: on the disk
    // before the call returns. `bBackup`: what it replaces is kept as <path>.bak.
    qs_int32 SaveToFile(const wchar_t* path, bool bCompact, bool bSync, bool bBackup) const;

    // Adds what `other` holds and this store does not, behind what this store has, in its order. An entry whose name
    // this level has, value or level, is not added; where both are levels they are merged in the same way, but for a
    // level of this store that is a list (it has an unnamed value, or an unnamed level without levels in it): that is
    // kept as a whole. So a list is never mixed of both, and a key that both hold has as many entries as this store
    // gives it. Every level is closed.
    void Merge(const CQsLiteVariantR& other);

    // Replaces the entry at a path (level names, each after a backslash: "\\a\\b"), a level rather than a value of that
    // name, by the first entry of `node`, in its place. 0, and every level closed; -13, and nothing changed, when there
    // is no such entry; -9 when `node` is empty.
    qs_int32 Replace(const wchar_t* path, const CQsLiteVariantR& node);

private:
    std::shared_ptr<const SQsLiteLevel> m_root; // never changed: stores that hold the same share it
    std::vector<const SQsLiteLevel*> m_path;
};

// Keeps every other thread and process that asks for it from changing a settings file, from construction to the end of
// the scope: whoever loads, changes and saves a file holds it meanwhile. Waits up to five seconds. Not recursive, and
// the same for all files of a folder. The file need not be there, its folder must.
class QS_HOST_API CQsSettingsFileLock
{
public:
    explicit CQsSettingsFileLock(const wchar_t* path);
    ~CQsSettingsFileLock();
    CQsSettingsFileLock(const CQsSettingsFileLock&) = delete;
    CQsSettingsFileLock& operator=(const CQsSettingsFileLock&) = delete;

    // False when it could not be had; the log says so. Then the file is left alone.
    bool IsHeld() const;

private:
    struct SLock;
    std::unique_ptr<SLock> m_lock;
};
