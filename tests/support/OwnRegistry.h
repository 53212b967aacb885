// A registry of the test's own: both roots are empty at first, and gone with the object.
#pragma once

#include "tests/support/TemporaryFolder.h"

#include <string>

namespace QsTest {

class COwnRegistry
{
public:
    COwnRegistry(); // [before other threads use the registry]
    ~COwnRegistry();
    COwnRegistry(const COwnRegistry&) = delete;
    COwnRegistry& operator=(const COwnRegistry&) = delete;

    const std::string& Folder() const { return m_folder.Path(); } // that names it; for files of the test as well

private:
    CTemporaryFolder m_folder;
};

} // namespace QsTest
