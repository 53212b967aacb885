#include "standalone/FileContents.h"

#include "platform/AtomicFile.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>

namespace fs = std::filesystem;

namespace {

bool Fail(const std::string& path, const std::string& what, std::string& error)
{
    error = path + ": " + what;
    return false;
}

} // namespace

bool QsStandalone::ReadFileContents(const std::string& path, std::uint64_t maxBytes, std::string& contents,
                                    std::string& error)
{
    try
    {
        const fs::path file = fs::u8path(path);
        std::error_code code;
        const fs::file_status status = fs::status(file, code);
        if (status.type() == fs::file_type::not_found)
            return Fail(path, "no such file", error);
        if (code)
            return Fail(path, "cannot be read: " + code.message(), error);
        if (fs::is_directory(status))
            return Fail(path, "expected a file, found a folder", error);
        if (!fs::is_regular_file(status))
            return Fail(path, "expected a file, found a pipe or a device", error);

        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(QsPlatform::OpenToRead(path), &std::fclose);
        if (stream == nullptr)
            return Fail(path, "cannot be opened", error);
        std::string bytes;
        const std::uintmax_t size =
            fs::file_size(file, code); // of the one that is open unless it has just been replaced
        bytes.reserve(static_cast<std::size_t>(code ? 0 : std::min<std::uintmax_t>(size, maxBytes)));
        char block[1 << 16];
        std::size_t count = 0;
        while (bytes.size() <= maxBytes && (count = std::fread(block, 1, sizeof block, stream.get())) > 0)
            bytes.append(block, count);
        if (std::ferror(stream.get()) != 0)
            return Fail(path, "cannot be read to its end", error);
        if (bytes.size() > maxBytes)
            return Fail(path,
                        "has " + std::to_string(std::max<std::uintmax_t>(code ? 0 : size, bytes.size())) +
                            " bytes, at most " + std::to_string(maxBytes) + " are expected",
                        error);
        contents = std::move(bytes);
        return true;
    }
    catch (const std::exception& e)
    {
        return Fail(path, std::string("cannot be read: ") + e.what(), error);
    }
}
