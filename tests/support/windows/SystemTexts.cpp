#include "tests/support/SystemTexts.h"

#include "platform/Win32.h"

#include <system_error>

namespace QsTest {

std::string WordsForMissing()
{
    return std::system_category().message(ERROR_FILE_NOT_FOUND);
}

std::vector<std::string> WordsForNoFolder()
{
    return {std::system_category().message(ERROR_DIRECTORY), std::system_category().message(ERROR_PATH_NOT_FOUND),
            std::system_category().message(ERROR_INVALID_NAME)};
}

} // namespace QsTest
