#include "platform/Timer.h"

#include "platform/Win32.h"

#include <mmsystem.h>

namespace QsPlatform {

namespace {

constexpr UINT finestMs = 1;

} // namespace

CFinestTimer::CFinestTimer()
{
    timeBeginPeriod(finestMs);
}

CFinestTimer::~CFinestTimer()
{
    timeEndPeriod(finestMs);
}

} // namespace QsPlatform
