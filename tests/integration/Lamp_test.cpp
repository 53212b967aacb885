// Lights that outlive the process: a lamp that stays lit when the program ends without having put it out.
#include "tests/integration/LampTest.h"

using testing::HasSubstr;

using Lamp = LampTest;

TEST_F(Lamp, IsPutOutAfterABeginThatThrows)
{
    for (const char* kind : {"timed", "continuous"})
    {
        Set("LAMP_FAULT", "begin throws");
        Begin(kind, "50");
        EXPECT_EQ(1, ExitCode()) << kind;
        EXPECT_THAT(Errors(), HasSubstr("status -9")) << kind;
        EXPECT_FALSE(IsLit()) << kind;
    }
}

TEST_F(Lamp, IsPutOutByTheAbortWhereTheEndThrows)
{
    Set("LAMP_FAULT", "end throws");
    Begin("continuous", "50");
    EXPECT_EQ(1, ExitCode());
    EXPECT_THAT(Errors(), HasSubstr("status -9"));
    EXPECT_FALSE(IsLit());
}

TEST_F(Lamp, IsPutOutByTheEndWhereTheAbortThrows)
{
    Set("LAMP_FAULT", "abort throws");
    Begin("continuous", "60000", {"--abort-after", "50"});
    EXPECT_NE(-1, ExitCode());
    EXPECT_FALSE(IsLit());
}

TEST_F(Lamp, IsPutOutWhenTwoInterruptsComeTogether)
{
    for (const char* kind : {"timed", "continuous"})
    {
        Set("LAMP_FAULT", "abort is slow");
        Begin(kind, "60000");
        ASSERT_TRUE(WaitUntilLit());
        ASSERT_TRUE(SendInterrupt(Process()));
        ASSERT_TRUE(SendRequestToEnd(Process()));
        EXPECT_EQ(1, ExitCode()) << kind;
        EXPECT_FALSE(IsLit()) << kind;
    }
}

TEST_F(Lamp, ThatDoesNotAnswerIsNotWaitedForAfterASecondInterrupt)
{
    Set("LAMP_FAULT", "abort hangs");
    Begin("timed", "600000", {"--grace", "600000"});
    ASSERT_TRUE(WaitUntilLit());
    ASSERT_TRUE(SendInterrupt(Process()));
    ASSERT_TRUE(SendRequestToEnd(Process()));
    EXPECT_EQ(1, ExitCode());
}
