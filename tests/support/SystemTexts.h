// The system's words for its errors.
#pragma once

#include <string>
#include <vector>

namespace QsTest {

std::string WordsForMissing(); // there is no such file or folder
// A file is where a folder is expected: any of them, since versions of the system differ.
std::vector<std::string> WordsForNoFolder();

} // namespace QsTest
