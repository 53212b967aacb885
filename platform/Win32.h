// The few Windows calls that the module uses, under their own names.
//
// On Windows this is <windows.h> and nothing of ours is compiled. Elsewhere platform/posix/ implements exactly this
// subset with the documented meaning of each call; the stand-alone host's library carries it.
#pragma once

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include "platform/posix/Win32Posix.h"
#endif
