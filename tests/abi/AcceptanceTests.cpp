// The front end of the host's compiler reads every public header by itself, and every source of the module.
#include "tests/abi/Compiler.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <ostream>

namespace {

using QsTest::SAnswer;
using testing::IsEmpty;
using testing::Not;

// Files of these folders, without what lies below them: platform/ has each system's own there.
std::vector<std::string> FilesOf(const std::vector<std::string>& folders, const std::string& extension)
{
    std::vector<std::string> files;
    for (const std::string& folder : folders)
        for (const auto& entry : std::filesystem::directory_iterator(std::string(QS_SOURCE "/") + folder))
            if (entry.path().extension() == extension)
                files.push_back(folder + "/" + entry.path().filename().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::string NameOf(const testing::TestParamInfo<std::string>& file)
{
    std::string name = file.param.substr(0, file.param.rfind('.'));
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
}

const std::vector<std::string> s_publicFolders = {"device", "manager",  "beampath",  "calibration",
                                                  "host",   "platform", "standalone"};
const std::vector<std::string> s_moduleFolders = {"device", "manager", "beampath", "calibration"};

class PublicHeader : public testing::TestWithParam<std::string>
{};

TEST_P(PublicHeader, IsAcceptedByItself)
{
    const QsTest::CTemporaryFolder folder;
    const std::string source = folder.Write("Header.cpp", "#include \"" + GetParam() + "\"\n");
    const SAnswer answer = QsTest::CompileForHost(source, {"/Zs"});
    EXPECT_EQ(0, answer.status) << answer.text;
    EXPECT_THAT(answer.text, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Headers, PublicHeader, testing::ValuesIn(FilesOf(s_publicFolders, ".h")), NameOf);

class ModuleSource : public testing::TestWithParam<std::string>
{};

TEST_P(ModuleSource, IsCompiled)
{
    const QsTest::CTemporaryFolder folder;
    const SAnswer answer = QsTest::CompileForHost(std::string(QS_SOURCE "/") + GetParam(),
                                                  {"/c", "/Fo" + folder.File("object.obj"), "/DQS_STIM_BUILD"});
    EXPECT_EQ(0, answer.status) << answer.text;
    EXPECT_THAT(answer.text, IsEmpty());
    EXPECT_THAT(QsTest::ContentsOf(folder.File("object.obj")), Not(IsEmpty()));
}

INSTANTIATE_TEST_SUITE_P(Sources, ModuleSource, testing::ValuesIn(FilesOf(s_moduleFolders, ".cpp")), NameOf);

// What the front end of the host's compiler, or Clang in its place, must not let pass; without this the tests above
// would show little.
struct SRefused
{
    std::string name;
    std::string source;
    std::string said; // part of the reason
};

void PrintTo(const SRefused& refused, std::ostream* stream)
{
    *stream << refused.name;
}

class RefusedSource : public testing::TestWithParam<SRefused>
{};

TEST_P(RefusedSource, IsNotAccepted)
{
    const QsTest::CTemporaryFolder folder;
    const SAnswer answer = QsTest::CompileForHost(folder.Write("Refused.cpp", GetParam().source), {"/Zs"});
    EXPECT_NE(0, answer.status);
    EXPECT_THAT(answer.Complaints(), testing::HasSubstr(GetParam().said));
}

const SRefused s_refused[] = {
    {"MissingInclude", "std::vector<int> f();\n", "identifier 'std'"},
    {"PosixHeader", "#include <unistd.h>\n", "'unistd.h' file not found"},
    {"PosixType", "#include <cstddef>\nssize_t f();\n", "'ssize_t'"},
    {"Attribute", "__attribute__((noinline)) void f() {}\n", "'of_another_compiler'"},
    {"PrettyFunction", "const char* f() { return __PRETTY_FUNCTION__; }\n", "'of_another_compiler'"},
    {"StatementExpression", "int f() { return ({ 1; }); }\n", "-Wgnu-statement-expression"},
    {"VariableLengthArray", "int f(int n) { int a[n]; a[0] = n; return a[0]; }\n", "-Wvla-extension"},
    {"ArrayOfNothing", "struct S { int n; int a[0]; };\n", "-Wzero-length-array"},
    {"Designator", "struct S { int a; int b; };\nS f() { return S{.a = 1, .b = 2}; }\n", "-Wc++20-designator"},
    {"OmittedOperand", "int f(int a) { return a ?: 1; }\n", "-Wgnu-conditional-omitted-operand"},
    {"CaseRange", "int f(int a) { switch (a) { case 1 ... 2: return 1; default: return 0; } }\n", "-Wgnu-case-range"},
    {"EmptyVariadicArguments", "int g(int, ...);\n#define G(a, ...) g(a, ##__VA_ARGS__)\nint f() { return G(1); }\n",
     "-Wgnu-zero-variadic-macro-arguments"},
    {"LongOf64Bits", "long f(long long x) { return long{x}; }\n", "cannot be narrowed"},
    {"UnusedParameter", "void f(int x) {}\n", "-Wunused-parameter"},
    // All members of an exported class are made, its copy too, whether anybody copies it or not.
    {"ExportedClassOfWhatCannotBeCopied",
     "#include <memory>\n#include <vector>\n"
     "class __declspec(dllexport) C { std::vector<std::unique_ptr<int>> m_list; };\n",
     "deleted"},
};

INSTANTIATE_TEST_SUITE_P(Sources, RefusedSource, testing::ValuesIn(s_refused),
                         [](const testing::TestParamInfo<SRefused>& refused) { return refused.param.name; });

TEST(AcceptedSource, IsAccepted)
{
    const QsTest::CTemporaryFolder folder;
    const SAnswer answer = QsTest::CompileForHost(
        folder.Write("Accepted.cpp", "#include <vector>\nclass __declspec(dllexport) C { std::vector<int> m; };\n"),
        {"/Zs"});
    EXPECT_EQ(0, answer.status) << answer.text;
}

} // namespace
