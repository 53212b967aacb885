// Settings files in tests: stores that are made at random and checked against what they were made from.
#pragma once

#include "host/QsSystem.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

inline std::uint64_t BitsOf(double number)
{
    std::uint64_t bits = 0;
    std::memcpy(&bits, &number, sizeof bits);
    return bits;
}

inline double OfBits(std::uint64_t bits)
{
    double number = 0.0;
    std::memcpy(&number, &bits, sizeof number);
    return number;
}

inline qs_int32 Load(CQsLiteVariantR& store, const std::string& path, bool check = true)
{
    return store.LoadFromFile(CQsStringW::FromUtf8(path).c_str(), check, false);
}

inline qs_int32 Save(const CQsLiteVariantR& store, const std::string& path, bool compact = false, bool sync = false)
{
    return store.SaveToFile(CQsStringW::FromUtf8(path).c_str(), compact, sync, false);
}

// What a store holds, by itself: entries of a level in order.
struct SNode
{
    enum class EType
    {
        Double,
        Bool,
        Unsigned,
        Binary,
        Text,
        Level
    };

    std::wstring name;
    EType type = EType::Level;
    double number = 0.0;
    std::uint32_t whole = 0; // also of a bool
    std::string bytes;
    std::wstring text;
    std::vector<SNode> entries; // of a level

    static SNode Of(std::wstring name, EType type)
    {
        SNode node;
        node.name = std::move(name);
        node.type = type;
        return node;
    }
    static SNode Of(std::wstring name, double number)
    {
        SNode node = Of(std::move(name), EType::Double);
        node.number = number;
        return node;
    }
    static SNode Of(std::wstring name, std::vector<SNode> entries)
    {
        SNode node = Of(std::move(name), EType::Level);
        node.entries = std::move(entries);
        return node;
    }
};

inline void Write(CQsLiteVariantW& writer, const std::vector<SNode>& entries)
{
    for (const SNode& node : entries)
    {
        const wchar_t* const name = node.name.c_str();
        switch (node.type)
        {
        case SNode::EType::Double:
            writer.SetDouble(name, node.number);
            break;
        case SNode::EType::Bool:
            writer.SetBool(name, node.whole != 0);
            break;
        case SNode::EType::Unsigned:
            writer.SetUnsigned(name, node.whole);
            break;
        case SNode::EType::Binary:
            writer.SetBinary(name, node.bytes.data(), node.bytes.size());
            break;
        case SNode::EType::Text:
            writer.SetString(name, CQsStringW(node.text));
            break;
        case SNode::EType::Level:
            writer.OpenLevel(name);
            Write(writer, node.entries);
            writer.CloseLevel();
            break;
        }
    }
}

// The open level of the reader and all below it hold exactly these entries: empty, else where the first difference is.
inline std::string Difference(CQsLiteVariantR& reader, const std::vector<SNode>& entries, const std::string& place = "")
{
    if (reader.GetEntryCount() != entries.size())
        return place + ": " + std::to_string(reader.GetEntryCount()) + " entries, not " +
               std::to_string(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        const SNode& node = entries[i];
        const wchar_t* const name = node.name.c_str();
        const std::string here = place + "/" + std::to_string(i);
        if (reader.GetEntryName(i) != name)
            return here + ": another name";
        if (reader.EnterEntry(i) != (node.type == SNode::EType::Level))
            return here + ": a level for a value or the other way round";
        if (node.type == SNode::EType::Level)
        {
            const std::string inside = Difference(reader, node.entries, here);
            reader.LeaveLevel();
            if (!inside.empty())
                return inside;
            continue;
        }
        // Two defaults tell a value from none.
        const double number = reader.GetDouble(name, 17.0);
        const bool hasNumber = BitsOf(number) == BitsOf(reader.GetDouble(name, 18.0));
        const bool hasFlag = reader.GetBool(name, true) == reader.GetBool(name, false);
        const bool hasWhole = reader.GetInt(name, 17) == reader.GetInt(name, 18);
        const CQsStringW text = reader.GetString(name, L"one");
        const bool hasText = text == reader.GetString(name, L"other");
        std::string bytes(reader.GetBinary(name, nullptr, 0), '?');
        reader.GetBinary(name, bytes.data(), bytes.size());

        using E = SNode::EType;
        const bool whole = node.type == E::Bool || node.type == E::Unsigned;
        if (hasNumber != (whole || node.type == E::Double) || hasFlag != whole || hasWhole != whole ||
            hasText != (node.type == E::Text) || bytes != (node.type == E::Binary ? node.bytes : ""))
            return here + ": another type or other bytes";
        if (node.type == E::Double && BitsOf(number) != BitsOf(node.number))
            return here + ": another double";
        if (whole && (static_cast<std::uint32_t>(reader.GetInt(name, 17)) != node.whole ||
                      reader.GetBool(name, false) != (node.whole != 0)))
            return here + ": another number";
        if (node.type == E::Text && (text != CQsStringW(node.text) || text.GetLength() != node.text.size()))
            return here + ": another text";
    }
    return {};
}

class CRandomStore
{
public:
    explicit CRandomStore(std::uint64_t seed) : m_random(seed) {}

    std::uint64_t Below(std::uint64_t limit) { return m_random() % limit; }

    // All of Unicode, with a liking for what formats stumble over. No half of a pair meets its other half: such two are
    // the same text as one character, and come back as that.
    std::wstring Text(std::size_t longest, bool withNull)
    {
        static const std::wstring awkward = L"\"\\/#$ \t\n\r{}[]:,\x01\x1B\x1F\x7F\x80\u00e4\u2028\uFEFF\uFFFE\uFFFF";
        std::wstring text;
        for (std::size_t left = Below(longest + 1); left > 0; --left)
        {
            std::uint64_t code = 0;
            switch (Below(6))
            {
            case 0:
                code = static_cast<std::uint64_t>(awkward[Below(awkward.size())]);
                break;
            case 1:
                code = 0xD800 + Below(0x800);
                break;
            case 2:
                code = 0x10000 + Below(0x100000);
                break;
            case 3:
                code = Below(0xD800);
                break;
            default:
                code = 0x20 + Below(0x5F);
                break;
            }
            const bool high = !text.empty() && static_cast<std::uint64_t>(text.back()) - 0xD800 < 0x400;
            if ((code == 0 && !withNull) || (high && code - 0xDC00 < 0x400))
                code = 'x';
            if (sizeof(wchar_t) == 2 && code > 0xFFFF)
            {
                text += static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10));
                code = 0xDC00 + ((code - 0x10000) & 0x3FF);
            }
            text += static_cast<wchar_t>(code);
        }
        return text;
    }

    std::vector<SNode> Entries(unsigned depth, std::size_t most)
    {
        std::vector<SNode> entries;
        std::set<std::wstring> keys; // of values; setting one again would replace it
        for (std::size_t left = Below(most + 1); left > 0; --left)
        {
            SNode node;
            node.name = Below(5) == 0 ? std::wstring() : Text(12, false);
            node.type = static_cast<SNode::EType>(Below(depth > 0 ? 7 : 5));
            if (static_cast<int>(node.type) > static_cast<int>(SNode::EType::Level))
                node.type = SNode::EType::Level;
            if (node.type != SNode::EType::Level && !keys.insert(node.name).second)
                continue;
            node.number = OfBits(m_random());
            node.whole = static_cast<std::uint32_t>(node.type == SNode::EType::Bool ? Below(2) : m_random());
            if (node.type == SNode::EType::Binary)
                for (std::uint64_t i = Below(40); i > 0; --i)
                    node.bytes += static_cast<char>(Below(256));
            if (node.type == SNode::EType::Text)
                node.text = Text(40, true);
            if (node.type == SNode::EType::Level)
                node.entries = Entries(depth - 1, most);
            entries.push_back(std::move(node));
        }
        return entries;
    }

private:
    std::mt19937_64 m_random;
};
