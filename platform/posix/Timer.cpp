#include "platform/Timer.h"

namespace QsPlatform {

CFinestTimer::CFinestTimer() = default;
CFinestTimer::~CFinestTimer() = default;

} // namespace QsPlatform
