// The result codes of the library: those of the socket layer, and the CIM status codes that only
// the object library returns (DMTF DSP0200, CIM operations over HTTP, status codes).
#pragma once

#include "sock/result.h"

namespace stewardry::cim {

constexpr Result RESULT_INVALID_SUPERCLASS = 10;
constexpr Result RESULT_NO_SUCH_PROPERTY = 12;
constexpr Result RESULT_TYPE_MISMATCH = 13;
constexpr Result RESULT_METHOD_NOT_FOUND = 17;
constexpr Result RESULT_SERVER_LIMITS_EXCEEDED = 27;

}  // namespace stewardry::cim
