#include "tests/support/SystemFaults.h"

#include "platform/posix/Control.h"

namespace QsTest {

void FailThreadCreations(unsigned count)
{
    QsPlatform::FailThreadCreations(count);
}

void FailEventCreations(unsigned count)
{
    QsPlatform::FailEventCreations(count);
}

void FailPoolItems(unsigned count)
{
    QsPlatform::FailPoolItems(count);
}

void RefuseRegistry(HKEY root, bool refuse)
{
    QsPlatform::RefuseRegistry(root, refuse);
}

std::uint64_t ClosedHandles()
{
    return QsPlatform::ClosedHandles();
}

std::uint64_t DeletedObjects()
{
    return QsPlatform::DeletedObjects();
}

} // namespace QsTest
