// The function that a module needs, in a library that is not beside it.
#include "platform/Export.h"

extern "C" QS_EXPORT int QsTestFunctionThatNobodyHas();

int QsTestFunctionThatNobodyHas()
{
    return 0;
}
