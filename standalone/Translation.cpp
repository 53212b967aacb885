// Translations from a catalogue file.
#include "platform/ThreadSafety.h"
#include "standalone/FileContents.h"
#include "standalone/HostControl.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <unordered_map>

namespace QsStandalone {
namespace {

using Catalogue = std::unordered_map<std::wstring, std::wstring>;

struct STranslations
{
    CQsMutex lock;
    Catalogue catalogue QS_GUARDED_BY(lock);
};

// Never destroyed: texts are translated until the process ends.
STranslations& Translations()
{
    static STranslations& translations = *new STranslations;
    return translations;
}

// Takes one flat object of texts and stops at anything else, so that nesting is never followed.
class CCatalogueHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, CCatalogueHandler>
{
public:
    bool Default() { return Refuse(m_open ? "expected a text, found another value" : "expected an object of texts"); }
    bool StartArray() { return Refuse(m_open ? "expected a text, found a list" : "expected an object of texts"); }
    bool StartObject()
    {
        if (m_open)
            return Refuse("expected a text, found an object");
        return m_open = true;
    }
    bool EndObject(rapidjson::SizeType) { return true; }

    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        m_key = CQsStringW::FromUtf8(std::string(text, length)).Std();
        return m_catalogue.count(m_key) == 0 ||
               Refuse("\"" + std::string(text, length) + "\" stands here a second time");
    }

    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        if (!m_open)
            return Refuse("expected an object of texts");
        m_catalogue[m_key] = CQsStringW::FromUtf8(std::string(text, length)).Std();
        return true;
    }

    const std::string& Refusal() const { return m_refusal; }
    Catalogue Take() { return std::move(m_catalogue); }

private:
    bool Refuse(const std::string& what)
    {
        m_refusal = what;
        return false;
    }

    bool m_open = false;
    std::wstring m_key;
    std::string m_refusal;
    Catalogue m_catalogue;
};

std::ptrdiff_t LineAt(const std::string& text, std::size_t place)
{
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(place, text.size()));
    return 1 + std::count(text.begin(), end, '\n');
}

} // namespace

bool LoadTranslations(const std::string& path, std::string& error)
{
    constexpr std::uint64_t maxBytes = 64u << 20;
    std::string contents;
    if (!ReadFileContents(path, maxBytes, contents, error))
        return false;
    if (contents.compare(0, 3, "\xEF\xBB\xBF") == 0)
        contents.replace(0, 3, 3, ' '); // a byte-order mark means nothing in UTF-8

    if (contents.find('\0') != std::string::npos)
    {
        error =
            path + ":" + std::to_string(LineAt(contents, contents.find('\0'))) + ": expected text, found a zero byte";
        return false;
    }

    // Parsed in place, in a copy: the reader's other way computes with null pointers.
    std::string parsed = contents;
    rapidjson::InsituStringStream stream(parsed.data());
    rapidjson::Reader reader;
    CCatalogueHandler handler;
    const auto result =
        reader.Parse<rapidjson::kParseInsituFlag | rapidjson::kParseValidateEncodingFlag>(stream, handler);
    if (result.IsError())
    {
        const std::string what =
            handler.Refusal().empty() ? rapidjson::GetParseError_En(result.Code()) : handler.Refusal();
        error = path + ":" + std::to_string(LineAt(contents, result.Offset())) + ": " + what;
        return false;
    }

    STranslations& translations = Translations();
    const CQsScopedLock<CQsMutex> guard(translations.lock);
    translations.catalogue = handler.Take();
    return true;
}

void ClearTranslations()
{
    STranslations& translations = Translations();
    const CQsScopedLock<CQsMutex> guard(translations.lock);
    translations.catalogue.clear();
}

} // namespace QsStandalone

CQsStringW QS_GetTranslation(const wchar_t* text, const char* /*sourceFile*/)
{
    CQsStringW original(text);
    auto& translations = QsStandalone::Translations();
    const CQsScopedLock<CQsMutex> guard(translations.lock);
    const auto found = translations.catalogue.find(original.Std());
    return found != translations.catalogue.end() ? CQsStringW(found->second) : original;
}
