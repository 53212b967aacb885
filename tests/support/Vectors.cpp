#include "tests/support/Vectors.h"

#include "host/QsSystem.h"

#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace QsTest {
namespace {

const rapidjson::Document& File()
{
    static const rapidjson::Document document = []
    {
        std::ifstream stream(QS_VECTORS, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        rapidjson::Document parsed;
        parsed.Parse<rapidjson::kParseFullPrecisionFlag>(text.c_str(), text.size());
        if (!stream.is_open() || parsed.HasParseError() || !parsed.IsObject())
            throw std::runtime_error(std::string("cannot read the reference values of ") + QS_VECTORS);
        return parsed;
    }();
    return document;
}

} // namespace

const Json& Member(const Json& object, const char* name)
{
    if (!object.IsObject() || !object.HasMember(name))
        throw std::runtime_error(std::string("the reference values have no member ") + name);
    return object[name];
}

const Json& Vector(const std::string& id)
{
    for (const Json& vector : Member(File(), "vectors").GetArray())
    {
        if (Member(vector, "id").GetString() == id)
            return vector;
    }
    throw std::runtime_error("no reference value " + id);
}

std::vector<const Json*> VectorsOf(const std::string& function)
{
    std::vector<const Json*> found;
    for (const Json& vector : Member(File(), "vectors").GetArray())
    {
        if (Member(vector, "function").GetString() == function)
            found.push_back(&vector);
    }
    if (found.empty())
        throw std::runtime_error("no reference values of " + function);
    return found;
}

std::vector<std::wstring> Texts()
{
    std::vector<std::wstring> texts;
    for (const Json& text : Member(File(), "texts").GetArray())
    {
        std::wstring unescaped;
        const std::wstring escaped = ToWide(text);
        for (std::size_t i = 0; i < escaped.size(); ++i)
        {
            const bool bEscape = escaped[i] == L'\\' && i + 1 < escaped.size();
            unescaped += !bEscape ? escaped[i] : escaped[++i] == L'n' ? L'\n' : L'\t';
        }
        texts.push_back(unescaped);
    }
    return texts;
}

double ToDouble(const Json& value)
{
    if (value.IsNumber())
        return value.GetDouble();
    const std::string text = value.IsString() ? value.GetString() : "";
    if (text == "inf")
        return std::numeric_limits<double>::infinity();
    if (text == "-inf")
        return -std::numeric_limits<double>::infinity();
    if (text == "nan")
        return std::numeric_limits<double>::quiet_NaN();
    throw std::runtime_error("a reference value is no number: \"" + text + "\"");
}

std::wstring ToWide(const Json& value)
{
    if (!value.IsString())
        throw std::runtime_error("a reference value is no text");
    return CQsStringW::FromUtf8(std::string(value.GetString(), value.GetStringLength())).Std();
}

} // namespace QsTest
