#pragma once

#define SD_BOTH 2

using SOCKET = unsigned long long;

extern "C" int __stdcall shutdown(SOCKET socket, int how);
