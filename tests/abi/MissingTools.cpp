// Says so where the tools are missing that the other tests ask.
#include <gtest/gtest.h>

TEST(AbiTools, ClangIsThere)
{
    if (std::string(QS_ABI_CLANG).empty())
        GTEST_SKIP() << "no clang++: layouts, headers and class records are not compared with the host's compiler";
}

TEST(AbiTools, LinkerIsThere)
{
    if (std::string(QS_ABI_LINK).empty())
        GTEST_SKIP() << "no lld-link: the class records are read from object files alone";
}
