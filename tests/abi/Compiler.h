// The compiler that is asked, and what it is asked with.
#pragma once

#include <string>
#include <vector>

namespace QsTest {

// An ABI that the module is, or is to be, built for.
struct SAbi
{
    std::string name;   // for test names
    std::string target; // the compiler's name of it
    bool microsoft;     // of the host's compiler; else Itanium
};
const std::vector<SAbi>& Abis();
const SAbi& HostAbi();

// What a compiler says, and its exit status.
struct SAnswer
{
    int status = -1;
    std::string text;

    std::string Complaints() const; // the lines with errors and warnings
};

// Runs a program and waits for it. The text is what it writes to both of its outputs.
SAnswer Run(const std::string& program, const std::vector<std::string>& arguments);

// The layouts of tests/abi/LaidOut.cpp. Headers in `before`, if it is not empty, stand in front of the project's.
SAnswer AskForLayouts(const SAbi& abi, const std::string& before = "", const std::vector<std::string>& more = {});

// The front end of the host's compiler, as the build for it calls it, with the stand-in headers.
SAnswer CompileForHost(const std::string& source, const std::vector<std::string>& more);

} // namespace QsTest
