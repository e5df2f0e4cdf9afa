// Fuzz target: any bytes as Base64, and any bytes through Base64 and back. The first byte tells
// with which chunk the sink gives up.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/base64.h"

namespace {

struct Taken {
  std::vector<std::uint8_t> bytes;
  std::size_t chunksLeft;
};

int Take(const std::uint8_t* chunk, std::size_t length, void* data) {
  auto* taken = static_cast<Taken*>(data);
  if (length == 0 || length > 512 || taken->chunksLeft == 0) std::abort();
  taken->bytes.insert(taken->bytes.end(), chunk, chunk + length);
  return --taken->chunksLeft == 0 ? 1 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stewardry;
  if (size == 0) return 0;
  const std::vector<std::uint8_t> input(data + 1, data + size);
  Taken decoded{{}, data[0] % 8 + std::size_t{1}};
  (void)Base64Dec(input.data(), input.size(), Take, &decoded);

  Taken text{{}, SIZE_MAX};
  Taken again{{}, SIZE_MAX};
  if (Base64Enc(input.data(), input.size(), Take, &text) != 0) std::abort();
  if (Base64Dec(text.bytes.data(), text.bytes.size(), Take, &again) < 0) std::abort();
  if (again.bytes != input) std::abort();
  return 0;
}
