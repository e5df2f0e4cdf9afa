#include "cim/message/message_table.h"

#include <iterator>

namespace stewardry::cim {

namespace {

constexpr MessageFieldRow P(std::uint64_t at) { return {mft_pointer, 0, at, 0, 0}; }
constexpr MessageFieldRow O(std::uint64_t at) { return {mft_pointer_optional, 0, at, 0, 0}; }
constexpr MessageFieldRow C(std::uint64_t at) { return {mft_clear, 0, at, 0, 0}; }
constexpr MessageFieldRow I(std::uint64_t at, std::uint64_t packed, std::uint64_t size) {
  return {mft_instance, 0, at, packed, size};
}
constexpr MessageFieldRow J(std::uint64_t at, std::uint64_t packed, std::uint64_t size) {
  return {mft_instance_optional, 0, at, packed, size};
}
constexpr MessageFieldRow kEnd = {mft_end, 0, 0, 0, 0};

constexpr MessageFieldRow kHead[] = {C(0), C(8), C(64), C(72), kEnd};
constexpr MessageFieldRow kRequest[] = {O(96), J(112, 120, 128), kEnd};

constexpr MessageFieldRow kNone[] = {kEnd};
constexpr MessageFieldRow kNamedInstance[] = {P(136), I(144, 152, 160), kEnd};
constexpr MessageFieldRow kPostInstance[] = {I(80, 88, 96), kEnd};
constexpr MessageFieldRow kEnumerate[] = {P(136), O(144), O(152), O(176),
                                          O(184), C(160), C(192), kEnd};
constexpr MessageFieldRow kPostResult[] = {O(88), J(96, 112, 120), O(104), kEnd};
constexpr MessageFieldRow kInvoke[] = {P(136),           P(144),           O(152),
                                       J(160, 176, 192), J(168, 184, 196), kEnd};
constexpr MessageFieldRow kAssociations[] = {P(136), O(176), O(144),           O(152),
                                             O(160), O(168), I(184, 192, 200), kEnd};
constexpr MessageFieldRow kSubscribe[] = {P(136), O(144), O(152), P(168), P(176), kEnd};
constexpr MessageFieldRow kNotification[] = {O(88), O(96), O(184), kEnd};
constexpr MessageFieldRow kGetClass[] = {P(136), P(144), kEnd};
constexpr MessageFieldRow kPostSchema[] = {J(80, 88, 96), O(104), kEnd};
constexpr MessageFieldRow kPostIndication[] = {O(104), O(112), I(80, 88, 96), kEnd};

constexpr MessageRow kMessages[] = {
    {"UNKNOWN Message", 0, false, kHead},
    {"GetInstanceReq", 176, true, kNamedInstance},
    {"PostInstanceMsg", 104, true, kPostInstance},
    {"EnumerateInstancesReq", 200, true, kEnumerate},
    {"PostResultMsg", 128, false, kPostResult},
    {"NoOpReq", 136, false, kNone},
    {"NoOpRsp", 80, false, kNone},
    {"InvokeReq", 200, true, kInvoke},
    {"AssociatorsOfReq", 208, true, kAssociations},
    {"ReferencesOfReq", 208, true, kAssociations},
    {"SubscribeReq", 192, true, kSubscribe},
    {"UnsubscribeReq", 136, false, kNone},
    {"DeleteInstanceReq", 168, true, kNamedInstance},
    {"CreateInstanceReq", 176, true, kNamedInstance},
    {"ModifyInstanceReq", 176, true, kNamedInstance},
    {"BinProtocolNotification", 192, false, kNotification},
    {"GetClassReq", 152, true, kGetClass},
    {"PostSchemaMsg", 120, true, kPostSchema},
    {"HttpRequestMsg", 96, false, kNone},
    {"HttpResponseMsg", 96, false, kNone},
    {"PostIndicationMsg", 120, true, kPostIndication},
    {"SubscribeRes", 80, false, kNone},
    {"CancelMsg", 80, false, kNone},
    {"ProtocolEventConnect", 88, false, kNone},
};
static_assert(std::size(kMessages) == kMessageTags);

constexpr bool HasInstance(const MessageFieldRow& row) { return row.kind >= mft_instance; }

// Returns true if every field lies after the head, inside its record and at a multiple of its size.
constexpr bool IsInside(const MessageFieldRow* row, std::uint64_t from, std::uint64_t size) {
  for (; row->kind != mft_end; ++row) {
    if (row->field < from || row->field + 8 > size || row->field % 8 != 0) return false;
    if (!HasInstance(*row)) continue;
    if (row->packed + 8 > size || row->packed % 8 != 0) return false;
    if (row->packedSize + 4 > size || row->packedSize % 4 != 0) return false;
  }
  return true;
}
constexpr bool AreInside() {
  for (const MessageRow& row : kMessages)
    if (row.fields != kHead && !IsInside(row.fields, sizeof(Message), row.size)) return false;
  return true;
}
static_assert(IsInside(kHead, 0, sizeof(Message)) && IsInside(kRequest, 80, kRequestHeadSize));
static_assert(AreInside());

}  // namespace

const MessageFieldRow kMessageHeadFields[] = {kHead[0], kHead[1], kHead[2], kHead[3], kEnd};
const MessageFieldRow kRequestFields[] = {kRequest[0], kRequest[1], kEnd};

const MessageRow* FindMessageRow(std::uint32_t tag) {
  const std::uint32_t index = tag & kTagMask;
  return index < kMessageTags ? &kMessages[index] : nullptr;
}

}  // namespace stewardry::cim
