#include "tests/support/windows/Interposition.h"

#include "platform/Win32.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace QsTest {
namespace {

class CProgramImage
{
public:
    CProgramImage()
    {
        IMAGE_DOS_HEADER dos;
        std::memcpy(&dos, m_begin, sizeof dos);
        std::memcpy(&m_headers, m_begin + dos.e_lfanew, sizeof m_headers);
    }

    bool Contains(const void* address) const
    {
        const auto* const place = static_cast<const std::uint8_t*>(address);
        return place >= m_begin && place < m_begin + m_headers.OptionalHeader.SizeOfImage;
    }

    // Of a function without an import declaration the program only has a jump through its slot; null for any other.
    void** SlotOfJump(const void* function) const
    {
        const auto* const code = static_cast<const std::uint8_t*>(function);
        constexpr std::uint8_t jump[] = {0xFF, 0x25}; // jmp *offset(%rip)
        if (!Contains(code) || std::memcmp(code, jump, sizeof jump) != 0)
            return nullptr;
        std::int32_t offset = 0;
        std::memcpy(&offset, code + sizeof jump, sizeof offset);
        return reinterpret_cast<void**>(const_cast<std::uint8_t*>(code) + sizeof jump + sizeof offset + offset);
    }

    std::vector<void**> SlotsThatHold(const void* address) const
    {
        std::vector<void**> slots;
        const auto& imports = m_headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        for (auto* module = At<IMAGE_IMPORT_DESCRIPTOR>(imports.VirtualAddress); module->FirstThunk != 0; ++module)
            for (auto* slot = At<void*>(module->FirstThunk); *slot != nullptr; ++slot)
                if (*slot == address)
                    slots.push_back(slot);
        return slots;
    }

private:
    template <class Type>
    Type* At(DWORD place) const
    {
        return reinterpret_cast<Type*>(m_begin + place);
    }

    std::uint8_t* m_begin = reinterpret_cast<std::uint8_t*>(GetModuleHandleW(nullptr));
    IMAGE_NT_HEADERS m_headers;
};

[[noreturn]] void Fail(const char* name, const char* reason)
{
    std::fprintf(stderr, "%s cannot be replaced: %s\n", name, reason);
    std::abort();
}

} // namespace

void* ReplaceImport(void* function, void* own, const char* name)
{
    const CProgramImage image;
    void** const jumped = image.SlotOfJump(function);
    void* const real = jumped != nullptr ? *jumped : function;
    const std::vector<void**> slots = image.SlotsThatHold(real);
    if (slots.empty())
        Fail(name, "the program does not import it");
    for (void** const slot : slots)
    {
        DWORD protection = 0;
        if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection))
            Fail(name, "the import table cannot be written");
        *slot = own;
        VirtualProtect(slot, sizeof *slot, protection, &protection);
    }
    return real;
}

bool IsOfCRuntime(const void* object)
{
    static const CProgramImage image;
    return image.Contains(object);
}

bool IsWaitOfTestLibrary(HANDLE handle, DWORD milliseconds)
{
    return milliseconds == INFINITE && GetThreadId(handle) != 0;
}

} // namespace QsTest
