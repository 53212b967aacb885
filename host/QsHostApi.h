// Export macro of the host libraries' substitute (the library qshost).
#pragma once

#include "platform/Export.h"

#ifdef QS_HOST_BUILD
#define QS_HOST_API QS_EXPORT
#else
#define QS_HOST_API QS_IMPORT
#endif
