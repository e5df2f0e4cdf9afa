// Fuzz target: untrusted bytes as the pages of a message. A message that is restored is packed for
// sending again, which reads all its texts and instances.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "cim/message/message.h"
#include "cim/packing/packing.h"

namespace {

using namespace stewardry;
using namespace stewardry::cim;

constexpr std::size_t kMaxPages = 8;

// Reads the input from its start, and zeros after its end.
struct Input {
  template <class Number>
  Number Take() {
    Number number = 0;
    TakeInto(&number, sizeof number);
    return number;
  }
  void TakeInto(void* to, std::size_t size) {
    const std::size_t taken = std::min(size, left);
    if (taken != 0) std::memcpy(to, data, taken);
    data += taken;
    left -= taken;
  }
  const std::uint8_t* data;
  std::size_t left;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

// The input: whether instances stay packed, the number of pages, the message's address, each page's
// address and size at the sender, and the content of the pages.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  const bool skipUnpack = (input.Take<std::uint8_t>() & 1) != 0;
  std::vector<BatchPageInfo> list(input.Take<std::uint8_t>() % (kMaxPages + 1));
  const auto address = input.Take<std::uint64_t>();
  for (BatchPageInfo& page : list) {
    page.data = reinterpret_cast<void*>(input.Take<std::uint64_t>());
    page.size = input.Take<std::uint32_t>();
  }
  for (BatchPageInfo& page : list) page.size = std::min<std::uint64_t>(page.size, input.left);
  Batch* batch = nullptr;
  if (!Batch_FromPageSizes(&batch, list.data(), list.size()) || batch == nullptr) return 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    std::memset(Batch_PageAt(batch, i), 0, list[i].size);
    input.TakeInto(Batch_PageAt(batch, i), list[i].size);
  }
  Message* message = nullptr;
  if (Message_Restore(batch, reinterpret_cast<const void*>(address), list.data(), list.size(),
                      skipUnpack, &message) != RESULT_OK) {
    Batch_Destroy(batch);
    return 0;
  }
  Message* clone = nullptr;
  if (MessagePackCloneForBinarySending(message, &clone) == RESULT_OK) Message_Drop(clone);
  Message_Drop(message);
  return 0;
}
