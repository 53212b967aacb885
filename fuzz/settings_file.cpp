// Settings files: what loads saves and loads again to the same store, and a saved file that was altered does not pass.
#include "fuzz/Fuzz.h"
#include "host/QsSystem.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"

#include <cstring>
#include <functional>

using QsStandalone::CQsDiagnosticLog;

namespace {

const QsFuzz::CScratchFolder& Folder()
{
    static const QsFuzz::CScratchFolder folder;
    return folder;
}

CQsStringW PathOf(const char* name)
{
    return CQsStringW::FromUtf8((Folder().Path() / name).u8string());
}

void Append(std::string& dump, const std::string& text)
{
    dump += std::to_string(text.size()) + ':' + text;
}

// Everything that a reader gives for a value. Both times of two defaults the same: then it is the value.
void AppendValue(std::string& dump, const CQsLiteVariantR& store, const wchar_t* name)
{
    for (const double otherwise : {0.25, 0.75})
    {
        const double number = store.GetDouble(name, otherwise);
        char bits[sizeof number];
        std::memcpy(bits, &number, sizeof number);
        Append(dump, std::string(bits, sizeof bits));
    }
    for (const int otherwise : {0, 1})
        dump += std::to_string(store.GetInt(name, otherwise)) + (store.GetBool(name, otherwise != 0) ? 't' : 'f');
    for (const wchar_t* const otherwise : {L"a", L"b"})
        Append(dump, store.GetString(name, otherwise).ToUtf8());
    std::string bytes(store.GetBinary(name, nullptr, 0), '\0');
    QS_LAW(store.GetBinary(name, bytes.data(), bytes.size()) == bytes.size());
    Append(dump, bytes);
}

// The store as text, entry by entry; two stores that a reader cannot tell apart have the same.
void AppendLevel(std::string& dump, CQsLiteVariantR& store, unsigned depth)
{
    QS_LAW(depth <= 64);
    const std::size_t count = store.GetEntryCount();
    for (std::size_t i = 0; i < count; ++i)
    {
        const CQsStringW name = store.GetEntryName(i);
        Append(dump, name.ToUtf8());
        if (store.EnterEntry(i))
        {
            dump += '[';
            AppendLevel(dump, store, depth + 1);
            dump += ']';
            store.LeaveLevel();
        }
        else
            AppendValue(dump, store, name.c_str());
    }
    QS_LAW(store.GetEntryName(count).IsEmpty() && !store.EnterEntry(count));
}

std::string DumpOf(CQsLiteVariantR& store)
{
    std::string dump;
    AppendLevel(dump, store, 0);
    return dump;
}

// Loads the file over a store that holds something. A failure leaves that as it was and logs one line.
bool Load(CQsLiteVariantR& store, const char* name, bool bCheck)
{
    CQsLiteVariantW writer;
    writer.SetDouble(L"kept", 0.1);
    writer.OpenLevel(L"kept");
    writer.SetString(L"text", L"kept");
    const CQsLiteVariantR kept(writer);
    CQsLiteVariantR loaded(writer);
    const std::string before = DumpOf(loaded);

    CQsDiagnosticLog::ToMemory(true);
    const qs_int32 status = loaded.LoadFromFile(PathOf(name).c_str(), bCheck, false);
    const auto lines = CQsDiagnosticLog::MemoryLines();
    CQsDiagnosticLog::ToMemory(false);
    if (status == QS_OK)
    {
        QS_LAW(lines.empty());
        QS_LAW(store.LoadFromFile(PathOf(name).c_str(), bCheck, false) == QS_OK);
        QS_LAW(DumpOf(store) == DumpOf(loaded));
        return true;
    }
    QS_LAW(status == QS_ERR_FAIL);
    QS_LAW(lines.size() == 1 && QsFuzz::IsOneLine(lines[0].text.ToUtf8()));
    QS_LAW(DumpOf(loaded) == before);
    return false;
}

// The bytes of the saved store; they hold the same store and would be written again.
std::string Save(const CQsLiteVariantR& store, const std::string& dump, bool bCompact)
{
    std::error_code ignored;
    std::filesystem::remove(Folder().Path() / "saved.json", ignored);
    QS_LAW(store.SaveToFile(PathOf("saved.json").c_str(), bCompact, false, false) == QS_OK);
    const std::string bytes = QsFuzz::BytesOf(Folder().Path() / "saved.json");
    QsStandalone::ForgetLastSettingsFile(); // the bytes are to be parsed
    CQsLiteVariantR saved;
    QS_LAW(Load(saved, "saved.json", true));
    QS_LAW(DumpOf(saved) == dump);
    QS_LAW(saved.SaveToFile(PathOf("again.json").c_str(), bCompact, false, false) == QS_OK);
    QS_LAW(QsFuzz::BytesOf(Folder().Path() / "again.json") == bytes);
    return bytes;
}

// What a disk or a person did to a saved file: it is refused, or still holds the same.
void CheckAltered(const std::string& bytes, const std::string& dump)
{
    Folder().Write("altered.json", bytes);
    CQsLiteVariantR altered;
    QS_LAW(!Load(altered, "altered.json", true) || DumpOf(altered) == dump);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Folder().Write("file.json", QsFuzz::Text(data, size));
    QsStandalone::ForgetLastSettingsFile(); // the bytes are to be parsed
    CQsLiteVariantR store;
    CQsLiteVariantR checked;
    const bool isWhole = Load(checked, "file.json", true);
    const bool isStore = Load(store, "file.json", false);
    const std::string dump = DumpOf(store);
    QS_LAW(!isWhole || (isStore && DumpOf(checked) == dump));
    QS_LAW(Load(checked, "file.json", true) == isWhole); // also now that it has been read without the check
    if (!isStore)
        return 0;

    const std::string bytes = Save(store, dump, false);
    const std::string compact = Save(store, dump, true);
    QS_LAW(compact.size() <= bytes.size());
    // One place of the file, chosen by the file.
    const std::size_t place = std::hash<std::string>()(bytes) % bytes.size();
    std::string flipped = bytes;
    flipped[place] = static_cast<char>(flipped[place] ^ (1 << size % 8));
    CheckAltered(flipped, dump);
    CheckAltered(bytes.substr(0, place), dump);
    CheckAltered(bytes + bytes.substr(place), dump);

    // Merging adds nothing that is there already.
    CQsLiteVariantR merged;
    merged.Merge(store);
    QS_LAW(DumpOf(merged) == dump);
    merged.Merge(CQsLiteVariantR());
    QS_LAW(DumpOf(merged) == dump);
    merged.Merge(store);
    QS_LAW(DumpOf(merged) == dump);
    return 0;
}
