#include "tests/support/SystemTexts.h"

#include <cerrno>
#include <system_error>

namespace QsTest {

std::string WordsForMissing()
{
    return std::system_category().message(ENOENT);
}

std::vector<std::string> WordsForNoFolder()
{
    return {std::system_category().message(ENOTDIR)};
}

} // namespace QsTest
