// Export macro of the module (the library qsstimulation).
#pragma once

#include "platform/Export.h"

#ifdef QS_STIM_BUILD
#define QS_STIM_API QS_EXPORT
#else
#define QS_STIM_API QS_IMPORT
#endif
