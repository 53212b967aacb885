// Without the tools that the other tests ask nothing would be compared with the host's compiler, and all would pass.
#include <gtest/gtest.h>

#include <string>

TEST(AbiTools, ClangIsThere)
{
    EXPECT_NE("", std::string(QS_ABI_CLANG))
        << "no clang++: layouts, headers and class records are not compared with the host's compiler";
}

TEST(AbiTools, LinkerIsThere)
{
    EXPECT_NE("", std::string(QS_ABI_LINK)) << "no lld-link: the class records are read from object files alone";
}
