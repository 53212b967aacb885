// What the module for tests needs; it lies beside it.
#include "platform/Export.h"

extern "C" QS_EXPORT int QsPlatformTestNeededNumber()
{
    return 42;
}
