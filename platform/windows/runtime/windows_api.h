// Windows' own headers in the one order that works: Winsock before windows.h. Included by the
// sources here only, after the contract's header, so that the contract is read without Windows'
// macros.
#pragma once

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
// clang-format on
