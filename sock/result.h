// The status codes of the socket layer, the selector, its handlers and the object library.
#pragma once

#include <cstdint>

namespace stewardry {

using Result = std::uint32_t;

constexpr Result RESULT_OK = 0;
constexpr Result RESULT_FAILED = 1;
constexpr Result RESULT_INVALID_PARAMETER = 4;
constexpr Result RESULT_NOT_FOUND = 6;
constexpr Result RESULT_ALREADY_EXISTS = 11;
constexpr Result RESULT_WOULD_BLOCK = 1003;
constexpr Result RESULT_TIME_OUT = 1004;

}  // namespace stewardry
