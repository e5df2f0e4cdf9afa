// The request that this example ships: "CreateInstanceReq", which requests a new instance in a name
// space. Every kind of message is a record of its own that begins with the common head; the user of
// a kind defines its record, with the offsets of the message table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/instance/instance.h"
#include "cim/message/message.h"

namespace cim_ship {

constexpr std::uint32_t kCreateInstanceTag =
    stewardry::cim::kCreateInstanceReq | stewardry::cim::kTagIsRequest;

struct CreateInstanceRequest {
  stewardry::cim::Message head;
  std::uint64_t requestWords[2];
  const char16_t* requestText;  // here: the language of error texts
  std::uint64_t requestWord;
  stewardry::cim::Instance* requestInstance;
  void* requestPacked;
  std::uint32_t requestPackedSize;
  const char16_t* nameSpace;  // required
  stewardry::cim::Instance* instance;
  void* packed;
  std::uint32_t packedSize;
  std::uint32_t filler[3];
};
static_assert(offsetof(CreateInstanceRequest, requestText) == 96 &&
              offsetof(CreateInstanceRequest, requestInstance) == 112 &&
              offsetof(CreateInstanceRequest, requestPacked) == 120 &&
              offsetof(CreateInstanceRequest, requestPackedSize) == 128 &&
              offsetof(CreateInstanceRequest, nameSpace) == 136 &&
              offsetof(CreateInstanceRequest, instance) == 144 &&
              offsetof(CreateInstanceRequest, packed) == 152 &&
              offsetof(CreateInstanceRequest, packedSize) == 160 &&
              sizeof(CreateInstanceRequest) == 176);

// Returns a request for a fan of that name with properties of many types; null if an allocation
// fails. The caller releases it with Message_Drop on its head.
CreateInstanceRequest* MakeCreateRequest(std::uint64_t correlationId, const char16_t* name);

// Returns the message as such a request; null if it is another kind of message. Requires a non-null
// message.
const CreateInstanceRequest* AsCreateRequest(const stewardry::cim::Message* message);

}  // namespace cim_ship
