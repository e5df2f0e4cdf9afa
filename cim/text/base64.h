// Base64 with the alphabet and the padding of RFC 4648, section 4, in constant memory: what comes
// out leaves in chunks through a sink of the caller's. The decoder is as lenient as its contract
// says and no more: whoever tightens it turns away data that is taken today.
#pragma once

#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

// Takes the next `length` bytes of output, 1 to 512; they are the codec's and are gone after the
// call. `data` is what the codec was given. 0 to go on; anything else ends the codec with -1.
using Base64Sink = int (*)(const std::uint8_t* chunk, std::size_t length, void* data);

// Decodes `length` characters and passes the bytes to the sink. Gives the number of bytes in the
// last chunk, 0 when nothing came out, and -1 when a character is neither of the alphabet nor `=`,
// when the input ends inside a group of four, when the sink fails, and for an empty sink or input
// with a length. The top bit of a character is ignored, so 0xC1 reads as `A`. An `=` counts as 64
// wherever it stands: only one in the third or fourth place of a group leaves a byte away. What was
// decoded before a failure may have reached the sink. Any thread; nothing is allocated.
int Base64Dec(const std::uint8_t* bytes, std::size_t length, Base64Sink sink, void* data);

// Encodes `length` bytes and passes the characters to the sink, padded with `=`, without line
// breaks and terminator. 0, or -1 when the sink fails and for an empty sink or input with a length.
// Any thread; nothing is allocated.
int Base64Enc(const std::uint8_t* bytes, std::size_t length, Base64Sink sink, void* data);

}  // namespace stewardry::cim
