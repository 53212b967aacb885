// What a beampath does where memory is short.
#include "tests/support/BeampathFixture.h"

#include <sys/resource.h>

using namespace QsTest;

class LittleMemory : public BeampathTest
{};

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) &&                                                 \
    !(defined(__clang__) && __has_feature(address_sanitizer)) &&                                                       \
    !(defined(__clang__) && __has_feature(thread_sanitizer)) // they need more address space than the limit leaves
TEST_F(LittleMemory, IsSurvivedByAFoldOfMoreExposuresThanItHolds)
{
    MakeBeampath(2);
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &before));
    rlimit limited = before;
    limited.rlim_cur = rlim_t{8} << 30; // a count of 2^32 - 1 takes 32 GiB
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limited));
    double time = s_unwritten;
    const int withoutArray = BeampathDevice().GetStimulationExposureTime(nullptr, 0xFFFFFFFFu);
    const int withArray = BeampathDevice().GetStimulationExposureTime(&time, 0xFFFFFFFFu);
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &before));
    EXPECT_EQ(0, withoutArray);
    EXPECT_EQ(0, withArray);
    EXPECT_EQ(s_unwritten, time);
}
#endif
