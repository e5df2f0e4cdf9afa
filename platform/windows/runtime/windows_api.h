// Windows' headers in the order that works, Winsock before windows.h. Included after the contract's
// header, so that the contract compiles without Windows' macros.
#pragma once

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
// clang-format on
