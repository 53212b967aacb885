#include "tests/platform/RegistryScope.h"

#include "platform/posix/Control.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

CRegistryScope::CRegistryScope()
{
    std::string name = (std::filesystem::temp_directory_path() / "qs-registry-XXXXXX").string();
    if (!mkdtemp(name.data()))
        throw std::runtime_error("no temporary folder");
    m_folder = name;
    QsPlatform::SetRegistryFolders(m_folder, m_folder);
}

CRegistryScope::~CRegistryScope()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}
