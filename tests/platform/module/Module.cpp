// A module for tests to load.
#include "platform/Export.h"

extern "C" QS_IMPORT int QsPlatformTestNeededNumber();

extern "C" QS_EXPORT int QsPlatformTestNumber()
{
    return QsPlatformTestNeededNumber();
}
