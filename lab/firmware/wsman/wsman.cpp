#include "lab/firmware/wsman/wsman.h"

#include <algorithm>

#include "lab/firmware/core/text.h"
#include "lab/firmware/model/host_model.h"
#include "lab/firmware/wsman/instance_xml.h"
#include "lab/firmware/wsman/methods.h"
#include "lab/firmware/wsman/names.h"

namespace orrin {

using namespace stewardry::cim;

// A request on its way to its answer. The functions below store the content of the answer's body in
// `body`, and its action where that is not the request's with "Response".
struct WsmanRequest {
  WsmanService& service;
  const FirmwareView& firmware;
  bool mayChange;
  WsmanClock::time_point now;
  Envelope envelope{};
  std::string body{}, action{};
  std::optional<std::uint8_t> command{};
  bool hasWritten = false;

  Repository& Objects() const { return service.repository_; }
  EnumerationContexts& Contexts() const { return service.contexts_; }
  EventSource& Events() const { return service.events_; }
};

namespace {

constexpr std::size_t kHeadRoom = 2048;  // of an answer's envelope around its items

void Identify(WsmanRequest* request) {
  XmlWriter writer;
  writer.Begin("i:IdentifyResponse").With("xmlns:i", uri::kIdentity);
  writer.Element("i:ProtocolVersion", uri::kWsman)
      .Element("i:ProductVendor", "Corvane")
      .Element("i:ProductVersion", request->firmware.version)
      .End();
  request->body = writer.Written();
}

Instance* Target(const WsmanRequest& request) {
  const ClassDef& def = ClassOf(request.envelope.resourceUri);
  const Object key = KeyOf(def, request.envelope.selectors);
  Instance* const found = request.Objects().Find(key.get());
  if (found == nullptr) throw Fault{FaultCode::kDestinationUnreachable, "", "No such instance."};
  return found;
}

void AnswerInstance(const Instance* instance, WsmanRequest* request) {
  XmlWriter writer;
  WriteInstance(instance, Utf8(instance->def->name), UriOf(instance->def), nullptr, &writer);
  request->body = writer.Written();
}

void Get(WsmanRequest* request) { AnswerInstance(Target(*request), request); }

// Every property that is not a key and differs must be one that a console may write.
void Put(WsmanRequest* request) {
  Instance* const target = Target(*request);
  const Object changed = CopyObject(target);
  if (changed == nullptr) throw Fault{FaultCode::kInternalError};
  StoreChildren(changed.get(), request->envelope.body);
  for (const Property& p : PropertiesOf(changed.get())) {
    if (CimType_HoldsInstances(p.type)) continue;
    const auto old = PropertyOf(target, p.name);
    const bool isWritable = HasQualifier(target->def, p.name, u"Write");
    if (!old || (!isWritable && TextsOf(*old) != TextsOf(p)))
      throw Fault{FaultCode::kInvalidParameter, "", Utf8(p.name) + " cannot be changed."};
  }
  for (const Property& p : PropertiesOf(changed.get())) {
    if (!HasQualifier(target->def, p.name, u"Write")) continue;
    if (Instance_StoreProperty(target, p.name, &p.value, p.type, p.flags & FLAG_NULL) !=
        stewardry::RESULT_OK)
      throw Fault{FaultCode::kInternalError};
  }
  request->hasWritten = true;
  AnswerInstance(target, request);
}

// --- enumeration ---

struct ModeRow {
  const char* name;
  EnumerationMode mode;
};
constexpr ModeRow kModes[] = {
    {"EnumerateEPR", EnumerationMode::kReference},
    {"EnumerateObjectAndEPR", EnumerationMode::kObjectAndReference},
};

EnumerationMode ReadMode(const xmlNode* enumerate) {
  const xmlNode* const mode = Child(enumerate, uri::kWsman, "EnumerationMode");
  if (mode == nullptr) return EnumerationMode::kObject;
  for (const ModeRow& row : kModes)
    if (TextOf(mode) == row.name) return row.mode;
  throw Fault{FaultCode::kUnsupportedFeature, "EnumerationMode"};
}

std::size_t ReadCount(const xmlNode* element) {
  if (element == nullptr) return 1;  // as the standard says
  const auto count = ParseNumber(TextOf(element), UINT32_MAX);
  if (!count || *count == 0) throw Fault{FaultCode::kSchemaValidation, "", "MaxElements is wrong."};
  return static_cast<std::size_t>(*count);
}

bool Fits(const Instance* instance, const std::vector<Selector>& wanted) {
  return std::all_of(wanted.begin(), wanted.end(), [instance](const Selector& selector) {
    const auto property = PropertyOf(instance, Utf16(selector.name).c_str());
    if (!property || CimType_HoldsInstances(property->type))
      throw Fault{FaultCode::kCannotProcessFilter, "", selector.name + " is no property of text."};
    return TextsOf(*property) == std::vector{TextOf(selector.value)};
  });
}

std::vector<Selector> ReadFilter(const xmlNode* enumerate) {
  const xmlNode* filter = Child(enumerate, uri::kWsman, "Filter");
  if (filter == nullptr) filter = Child(enumerate, uri::kEnumeration, "Filter");
  if (filter == nullptr) return {};
  if (Attribute(filter, nullptr, "Dialect") != uri::kSelectorFilter)
    throw Fault{FaultCode::kFilterDialectUnavailable, "", "Only the selector filter is offered."};
  const xmlNode* const set = Child(filter, uri::kWsman, "SelectorSet");
  if (set == nullptr) throw Fault{FaultCode::kCannotProcessFilter};
  return SelectorsIn(set);
}

// The default is to show subclasses with their own properties.
void ReadPolymorphism(const xmlNode* enumerate, const ClassDef& def, Enumeration* enumeration) {
  const xmlNode* const element = Child(enumerate, uri::kCimBinding, "PolymorphismMode");
  const std::string mode = TextOf(element);
  if (element == nullptr || mode == "IncludeSubClassProperties") return;
  if (mode == "ExcludeSubClassProperties") {
    enumeration->asClass = &def;
  } else if (mode == "None") {
    std::erase_if(enumeration->left, [&def](const Object& object) { return object->def != &def; });
  } else {
    throw Fault{FaultCode::kUnsupportedFeature, "PolymorphismMode"};
  }
}

std::string ItemText(const Enumeration& enumeration, const Instance* instance) {
  XmlWriter writer;
  const bool isPair = enumeration.mode == EnumerationMode::kObjectAndReference;
  if (isPair) writer.Begin("wsman:Item");
  if (enumeration.mode != EnumerationMode::kReference) {
    const ClassDef* const shown =
        enumeration.asClass != nullptr ? enumeration.asClass : instance->def;
    WriteInstance(instance, Utf8(shown->name), UriOf(shown), enumeration.asClass, &writer);
  }
  if (enumeration.mode != EnumerationMode::kObject) {
    writer.Begin("wsa:EndpointReference");
    WriteReference(instance, &writer);
    writer.End();
  }
  if (isPair) writer.End();
  return writer.Written();
}

// Moves items into the answer, as many as are wanted and fit.
std::string TakeItems(std::size_t most, std::size_t mostBytes, Enumeration* enumeration) {
  std::string items;
  for (std::size_t i = 0; i < most && !enumeration->left.empty(); ++i) {
    const std::string item = ItemText(*enumeration, enumeration->left.front().get());
    if (items.size() + item.size() + kHeadRoom > mostBytes) {
      if (items.empty()) throw Fault{FaultCode::kEncodingLimit, "MaxEnvelopeSizeExceeded"};
      break;
    }
    items += item;
    enumeration->left.pop_front();
  }
  return items;
}

void Enumerate(WsmanRequest* request) {
  const xmlNode* const enumerate = request->envelope.body;
  if (!Is(enumerate, uri::kEnumeration, "Enumerate")) throw Fault{FaultCode::kSchemaValidation};
  const ClassDef& def = ClassOf(request->envelope.resourceUri);
  Enumeration enumeration;
  enumeration.mode = ReadMode(enumerate);
  const std::vector<Selector> filter = ReadFilter(enumerate);
  for (const Instance* instance : request->Objects().OfClass(def)) {
    if (!Fits(instance, filter)) continue;
    enumeration.left.push_back(CopyObject(instance));
    if (enumeration.left.back() == nullptr) throw Fault{FaultCode::kInternalError};
  }
  ReadPolymorphism(enumerate, def, &enumeration);
  XmlWriter writer;
  writer.Begin("wsen:EnumerateResponse");
  if (Child(enumerate, uri::kWsman, "OptimizeEnumeration") == nullptr) {
    writer.Element("wsen:EnumerationContext",
                   request->Contexts().Keep(std::move(enumeration), request->now));
  } else {
    const std::string items = TakeItems(ReadCount(Child(enumerate, uri::kWsman, "MaxElements")),
                                        request->envelope.mostBytes, &enumeration);
    const bool isEnd = enumeration.left.empty();
    writer.Element("wsen:EnumerationContext",
                   isEnd ? "" : request->Contexts().Keep(std::move(enumeration), request->now));
    writer.Begin("wsman:Items").Raw(items).End();
    if (isEnd) writer.Begin("wsman:EndOfSequence").End();
  }
  request->body = writer.End().Written();
}

std::string ContextName(const WsmanRequest& request) {
  return TextOf(Child(request.envelope.body, uri::kEnumeration, "EnumerationContext"));
}

void Pull(WsmanRequest* request) {
  const xmlNode* const count = Child(request->envelope.body, uri::kEnumeration, "MaxElements");
  const std::size_t most = ReadCount(count);
  Enumeration enumeration = request->Contexts().Take(ContextName(*request), request->now);
  const std::string items = TakeItems(most, request->envelope.mostBytes, &enumeration);
  XmlWriter writer;
  writer.Begin("wsen:PullResponse");
  const bool isEnd = enumeration.left.empty();
  if (!isEnd)
    writer.Element("wsen:EnumerationContext",
                   request->Contexts().Keep(std::move(enumeration), request->now));
  writer.Begin("wsen:Items").Raw(items).End();
  if (isEnd) writer.Begin("wsen:EndOfSequence").End();
  request->body = writer.End().Written();
}

void Release(WsmanRequest* request) {
  (void)request->Contexts().Take(ContextName(*request), request->now);
}

// --- subscriptions ---

void Subscribe(WsmanRequest* request) {
  request->body =
      SubscribeAnswer(request->Events().Begin(ReadSubscribe(request->envelope, request->now)));
}

void Renew(WsmanRequest* request) {
  const Envelope& envelope = request->envelope;
  request->body = RenewAnswer(
      request->Events().Renew(envelope.subscription, ReadExpires(envelope.body), request->now));
}

void Unsubscribe(WsmanRequest* request) { request->Events().End(request->envelope.subscription); }

// --- methods ---

void Invoke(WsmanRequest* request, const std::string& methodName) {
  Instance* const target = Target(*request);
  const ClassDef& def = *target->def;
  const std::int64_t index = Names_Find(def.methods, def.methodCount, Utf16(methodName).c_str());
  if (index == kNoIndex) throw Fault{FaultCode::kActionNotSupported};
  const MethodDef& method = *def.methods[index];
  const std::string name = Utf8(method.name);
  if (!Is(request->envelope.body, request->envelope.resourceUri.c_str(), (name + "_INPUT").c_str()))
    throw Fault{FaultCode::kSchemaValidation, "", "The body has no " + name + "_INPUT."};
  const ClassDef* const parameters = MethodDef_AsClass(&method);
  const Object in = MakeObject(*parameters), out = MakeObject(*parameters);
  if (in == nullptr || out == nullptr) throw Fault{FaultCode::kInternalError};
  StoreChildren(in.get(), request->envelope.body);
  request->command = RunMethod(target, method, in.get(), out.get());
  XmlWriter writer;
  writer.Begin("p:" + name + "_OUTPUT").With("xmlns:p", request->envelope.resourceUri);
  const auto result = PropertiesOf(out.get()).front();
  writer.Element("p:ReturnValue", TextOfValue(result.type, result.value));
  request->body = writer.End().Written();
}

void EnumerateClassNames(WsmanRequest* request) {
  XmlWriter writer;
  writer.Begin("n:EnumerateClassNames_OUTPUT").With("xmlns:n", uri::kIntrinsic);
  for (std::uint32_t i = 0; i < gDashSchema.classCount; ++i)
    writer.Element("n:name", Utf8(gDashSchema.classes[i]->name));
  request->body = writer.End().Written();
}

struct ActionRow {
  const char* nameSpace;
  const char* name;
  bool changes;
  void (*run)(WsmanRequest* request);
};
constexpr ActionRow kActions[] = {
    {uri::kTransfer, "/Get", false, Get},
    {uri::kTransfer, "/Put", true, Put},
    {uri::kEnumeration, "/Enumerate", false, Enumerate},
    {uri::kEnumeration, "/Pull", false, Pull},
    {uri::kEnumeration, "/Release", false, Release},
    {uri::kEventing, "/Subscribe", true, Subscribe},
    {uri::kEventing, "/Renew", true, Renew},
    {uri::kEventing, "/Unsubscribe", true, Unsubscribe},
    {uri::kIntrinsic, "/EnumerateClassNames", false, EnumerateClassNames},
};

void RequireChanger(const WsmanRequest& request) {
  if (!request.mayChange) throw Fault{FaultCode::kAccessDenied};
}

void Run(WsmanRequest* request) {
  if (request->envelope.isIdentify) return Identify(request);
  const std::string& action = request->envelope.action;
  request->action = action + "Response";
  for (const ActionRow& row : kActions) {
    if (action != std::string(row.nameSpace) + row.name) continue;
    if (row.changes) RequireChanger(*request);
    return row.run(request);
  }
  RequireChanger(*request);
  const std::string& resource = request->envelope.resourceUri;
  if (!action.starts_with(resource + "/")) throw Fault{FaultCode::kActionNotSupported};
  Invoke(request, action.substr(resource.size() + 1));
}

}  // namespace

WsmanAnswer WsmanService::Answer(std::string_view envelope, const Inventory& inventory,
                                 const FirmwareView& firmware, bool mayChange,
                                 WsmanClock::time_point now) {
  WsmanRequest request{*this, firmware, mayChange, now};
  WsmanAnswer answer;
  try {
    ReadEnvelope(envelope, &request.envelope);
    Observe(inventory, firmware, now);
    Run(&request);
    answer.envelope = AnswerEnvelope(request.envelope, request.action, request.body);
    if (answer.envelope.size() > request.envelope.mostBytes)
      throw Fault{FaultCode::kEncodingLimit, "MaxEnvelopeSizeExceeded"};
    answer.command = request.command;
    hasChanged_ = hasChanged_ || request.hasWritten;
  } catch (const Fault& fault) {
    const FaultKind& kind = KindOf(fault.code);
    answer.status = kind.httpStatus;
    answer.envelope = FaultEnvelope(request.envelope, fault);
    answer.note = ", fault " + std::string(kind.subcode != nullptr ? kind.subcode : kind.soapCode);
  }
  answer.note = " " + Printable(request.envelope.action, 200) + answer.note;
  return answer;
}

void WsmanService::Observe(const Inventory& inventory, const FirmwareView& firmware,
                           WsmanClock::time_point now) {
  events_.RemoveExpired(now);
  const auto subscription = events_.View();
  if (shownReports_ == inventory.reports && shownView_ == firmware &&
      shownSubscription_ == subscription)
    return;
  ShowSubscription(subscription, &repository_);  // is no event for its own subscriber
  const Repository before = subscription ? repository_.Copy() : Repository();
  ShowHost(inventory, firmware, &repository_);
  ShowSubscription(subscription, &repository_);  // of a host that may have another name now
  shownReports_ = inventory.reports;
  shownView_ = firmware;
  shownSubscription_ = subscription;
  hasChanged_ = true;
  if (!subscription) return;
  for (const Object& change : ChangesBetween(before, repository_)) events_.Add(change.get());
}

void WsmanService::Report(Alert alert) {
  if (!events_.View()) return;
  const auto computers = repository_.OfClass(*FindClass("CIM_ComputerSystem"));
  const auto name = computers.empty() ? std::nullopt : PropertyOf(computers.front(), u"Name");
  const Object made = MakeAlert(alert, name && !name->IsNull() ? TextsOf(*name).front() : "");
  if (made != nullptr) events_.Add(made.get());
}

}  // namespace orrin
