// One line to the host's diagnostic log under the source unit that the .cpp names: define QS_DIAG_UNIT as a wide
// literal after the includes. Log texts stand whole at the call, so that a search finds them.
#pragma once

#include "host/QsSystem.h"

#define QS_DIAG(...) DiagOutputExW(QS_DIAG_UNIT, __LINE__, __VA_ARGS__)

// The same, when the log keeps detailed messages: otherwise nothing is formatted.
#define QS_DIAG_DETAILED(...)                                                                                          \
    do                                                                                                                 \
    {                                                                                                                  \
        if (QS_DiagIsDetailed())                                                                                       \
            QS_DIAG(__VA_ARGS__);                                                                                      \
    } while (false)
