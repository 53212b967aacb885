#include "tests/abi/Compiler.h"

#include <array>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>

namespace QsTest {

namespace {

const std::string s_stubs = QS_SOURCE "/tests/abi/stubs";

std::string Quoted(const std::string& argument)
{
    std::string quoted = "'";
    for (const char c : argument)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

void Append(std::vector<std::string>& list, const std::vector<std::string>& more)
{
    list.insert(list.end(), more.begin(), more.end());
}

} // namespace

std::string SAnswer::Complaints() const
{
    std::istringstream stream(text);
    std::string complaints;
    for (std::string line; std::getline(stream, line);)
        if (line.find("error:") != std::string::npos || line.find("warning:") != std::string::npos)
            complaints += line + "\n";
    return complaints;
}

const std::vector<SAbi>& Abis()
{
    static const std::vector<SAbi> abis = {{"Host", "x86_64-pc-windows-msvc", true},
                                           {"MinGW", "x86_64-w64-windows-gnu", false},
                                           {"Linux", "x86_64-pc-linux-gnu", false}};
    return abis;
}

const SAbi& HostAbi()
{
    return Abis().front();
}

SAnswer Run(const std::string& program, const std::vector<std::string>& arguments)
{
    std::string command = Quoted(program);
    for (const std::string& argument : arguments)
        command += " " + Quoted(argument);
    command += " 2>&1";

    std::FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("cannot run " + program);
    SAnswer answer;
    std::array<char, 4096> bytes{};
    while (const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe))
        answer.text.append(bytes.data(), count);
    const int status = pclose(pipe);
    answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return answer;
}

SAnswer AskForLayouts(const SAbi& abi, const std::string& before, const std::vector<std::string>& more)
{
    std::vector<std::string> arguments = {"--target=" + abi.target, "-std=c++17", "-nostdinc", "-isystem", s_stubs};
    if (!before.empty())
        Append(arguments, {"-I", before});
    // Tables are laid out when code is made; reading alone prints none.
    Append(arguments, {"-I", QS_SOURCE, "-S", "-emit-llvm", "-o", "/dev/null", "-Xclang", "-fdump-vtable-layouts",
                       "-Xclang", "-fdump-record-layouts"});
    Append(arguments, more);
    arguments.push_back(QS_SOURCE "/tests/abi/LaidOut.cpp");
    return Run(QS_ABI_CLANG, arguments);
}

SAnswer CompileForHost(const std::string& source, const std::vector<std::string>& more)
{
    std::vector<std::string> arguments = {"--driver-mode=cl", "--target=" + HostAbi().target, "-fmsc-version=1929"};
    // As cmake/QsCompile.cmake has them for that compiler, warnings being errors here.
    Append(arguments,
           {"/std:c++17", "/permissive-", "/EHsc", "/utf-8", "/bigobj", "/Zc:__cplusplus", "/MD", "/O2", "/W4", "/WX",
            "-Wthread-safety", "/DNOMINMAX", "/DWIN32_LEAN_AND_MEAN", "/DUNICODE", "/D_UNICODE", "/DNDEBUG"});
    // An object that nothing refers to has a section of its own, which the linker may drop.
    arguments.push_back("/Gw");
    // Clang takes what GCC takes; the host's compiler does not.
    Append(arguments, {"-Wgnu", "-Wvla", "-Wzero-length-array", "-Wc++20-extensions", "-Wc++20-designator",
                       "-D__attribute__=of_another_compiler", "-D__PRETTY_FUNCTION__=of_another_compiler"});
    Append(arguments, {"-X", "-imsvc", s_stubs, "-I", QS_SOURCE});
    Append(arguments, more);
    Append(arguments, {"--", source});
    return Run(QS_ABI_CLANG, arguments);
}

} // namespace QsTest
