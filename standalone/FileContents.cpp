#include "standalone/FileContents.h"

#include <exception>
#include <filesystem>
#include <fstream>

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

        // The size of the file that is open: the path may be given to another one at any moment.
        std::ifstream stream(file, std::ios::binary | std::ios::ate);
        if (!stream)
            return Fail(path, "cannot be opened", error);
        const std::streamoff size = stream.tellg();
        stream.seekg(0);
        if (!stream || size < 0)
            return Fail(path, "cannot be read", error);
        if (static_cast<std::uint64_t>(size) > maxBytes)
            return Fail(path,
                        "has " + std::to_string(size) + " bytes, at most " + std::to_string(maxBytes) + " are expected",
                        error);

        std::string bytes(static_cast<std::size_t>(size), '\0');
        stream.read(bytes.data(), size);
        if (stream.bad() || stream.gcount() != size)
            return Fail(path, "cannot be read to its end", error);
        contents = std::move(bytes);
        return true;
    }
    catch (const std::exception& e)
    {
        return Fail(path, std::string("cannot be read: ") + e.what(), error);
    }
}
