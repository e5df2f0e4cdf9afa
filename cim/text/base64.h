// Base64 with the alphabet and the padding of RFC 4648, section 4, in constant memory: the output
// is passed in chunks to a sink of the caller's. The decoder is exactly as lenient as its contract
// says; a stricter one would refuse data that is accepted today.
#pragma once

#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

// Receives the next `length` bytes of output, 1 to 512, which are valid during the call. `data` is
// the codec's argument. Returns 0 to continue; any other value ends the codec with -1.
using Base64Sink = int (*)(const std::uint8_t* chunk, std::size_t length, void* data);

// Decodes `length` characters and passes the bytes to the sink. Returns the number of bytes in the
// last chunk, or 0 without output. Returns -1 if a character is neither of the alphabet nor `=`, if
// the input ends inside a group of four, if the sink fails, and for a null sink or a null input
// with a length. The top bit of a character is ignored: 0xC1 is `A`. An `=` has the value 64 at any
// place; in the third or fourth place of a group it also drops a byte. Bytes decoded before a
// failure may have been passed to the sink. Any thread; allocates nothing.
int Base64Dec(const std::uint8_t* bytes, std::size_t length, Base64Sink sink, void* data);

// Encodes `length` bytes and passes the characters to the sink, padded with `=`, without line
// breaks and terminator. Returns 0, or -1 if the sink fails and for a null sink or a null input
// with a length. Any thread; allocates nothing.
int Base64Enc(const std::uint8_t* bytes, std::size_t length, Base64Sink sink, void* data);

}  // namespace stewardry::cim
