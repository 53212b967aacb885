#include "tests/support/OwnRegistry.h"

#include "platform/RegistryControl.h"

namespace QsTest {

COwnRegistry::COwnRegistry()
{
    QsPlatform::UseOwnRegistry(m_folder.Path());
}

COwnRegistry::~COwnRegistry() = default; // it lies in the folder

} // namespace QsTest
