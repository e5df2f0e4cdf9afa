#include "lab/firmware/wsman/eventing.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "cim/value/datetime.h"
#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/model/indications.h"
#include "lab/firmware/wsman/instance_xml.h"
#include "lab/firmware/wsman/names.h"

namespace orrin {

using namespace stewardry::cim;

namespace {

constexpr std::size_t kMostOfHeaders = 1024;  // of the listener's reference parameters
// What is kept for a host that is away. The oldest are dropped.
constexpr std::size_t kMostCommands = 64;
constexpr std::int64_t kMostWait = 60'000;  // milliseconds
constexpr std::uint32_t kHttpPort = 80, kHttpsPort = 443;

[[noreturn]] void RefuseListener(const char* words) {
  throw Fault{FaultCode::kEventDeliverToUnusable, "", words};
}

// Stores a text and its terminating zero. Host and path become bytes of an HTTP request in the
// host's service, so only visible ASCII characters are accepted.
template <std::size_t N>
void FillField(char (&field)[N], std::string_view text) {
  const bool isVisible =
      std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7F'; });
  if (text.empty() || text.size() >= N || !isVisible)
    RefuseListener("The listener's address is not usable.");
  std::memcpy(field, text.data(), text.size());
}

// Takes "http://host:port/path" apart. An IPv6 host stands in brackets, which the host gets too.
SubscriptionRecord RecordOf(std::string_view url) {
  SubscriptionRecord record{};
  constexpr std::string_view kHttp = "http://", kHttps = "https://";
  record.secure = url.starts_with(kHttps) ? 1 : 0;
  if (record.secure == 0 && !url.starts_with(kHttp))
    RefuseListener("The listener's address is no URL of HTTP or HTTPS.");
  url.remove_prefix(record.secure != 0 ? kHttps.size() : kHttp.size());
  const std::size_t slash = std::min(url.find('/'), url.size());
  std::string_view place = url.substr(0, slash);
  const std::string_view path = slash < url.size() ? url.substr(slash) : "/";
  if (place.find('@') != std::string_view::npos) RefuseListener("A listener's URL has no user.");
  record.port = record.secure != 0 ? kHttpsPort : kHttpPort;
  const std::size_t colon = place.rfind(':');
  if (colon != std::string_view::npos && place.back() != ']') {
    const auto port = ParseNumber(place.substr(colon + 1), UINT16_MAX);
    if (!port || *port == 0) RefuseListener("The listener's port is no number.");
    record.port = static_cast<std::uint32_t>(*port);
    place = place.substr(0, colon);
  }
  FillField(record.host, place);
  FillField(record.path, path);
  return record;
}

const FilterRow* FindFilter(const Envelope& request) {
  const std::string& resource = request.resourceUri;
  for (const FilterRow& row : kFilters)
    if (resource == uri::kCimSchema + std::string(row.className)) return &row;
  if (resource == uri::kAllClasses) return &kFilters[0];
  const ClassDef& def = ClassOf(resource);
  if (!IsOfClass(&def, u"CIM_FilterCollection")) throw Fault{FaultCode::kActionNotSupported};
  const Object key = KeyOf(def, request.selectors);
  const std::string id = TextsOf(*PropertyOf(key.get(), u"InstanceID")).front();
  for (const FilterRow& row : kFilters)
    if (id == row.id) return &row;
  throw Fault{FaultCode::kDestinationUnreachable, "", "No such filter collection."};
}

// What a Subscribe may contain and the firmware does not offer.
void RefuseOthers(const xmlNode* subscribe, const xmlNode* delivery) {
  if (Child(subscribe, uri::kEventing, "Filter") != nullptr ||
      Child(subscribe, uri::kWsman, "Filter") != nullptr)
    throw Fault{FaultCode::kFilteringUnsupported};
  for (const char* name : {"Bookmark", "SendBookmarks"})
    if (Child(subscribe, uri::kWsman, name) != nullptr)
      throw Fault{FaultCode::kUnsupportedFeature, "Bookmarks"};
  if (Child(delivery, uri::kWsman, "Heartbeats") != nullptr)
    throw Fault{FaultCode::kUnsupportedFeature, "Heartbeats"};
  const auto mode = Attribute(delivery, nullptr, "Mode");
  if (mode && *mode != uri::kPush) throw Fault{FaultCode::kDeliveryModeUnavailable};
}

std::string Duration(std::chrono::seconds seconds) {
  return Format("PT%lldS", static_cast<long long>(seconds.count()));
}

}  // namespace

void Subscription::Extend(std::chrono::seconds forSeconds, WsmanClock::time_point now) {
  life = forSeconds;
  expires = now + forSeconds;
  start = FixedTimeNow();
}

bool Subscription::Wants(const ClassDef* indication) const {
  return IsOfClass(indication, Utf16(filter->className).c_str());
}

SubscriptionView Subscription::View() const {
  return {id, filter->id, destination, start, static_cast<std::uint64_t>(life.count())};
}

std::chrono::seconds ReadExpires(const xmlNode* parent) {
  const xmlNode* const element = Child(parent, uri::kEventing, "Expires");
  if (element == nullptr) return kUsualSubscription;
  CimDatetime time;
  std::uint64_t microseconds = 0;
  if (Datetime_ParseSchema(Utf16(TextOf(element)).c_str(), &time) != 0)
    throw Fault{FaultCode::kInvalidExpiration};
  if (Datetime_IntervalToMicroseconds(&time, &microseconds) != 0)
    throw Fault{FaultCode::kUnsupportedExpirationType};
  const auto asked = std::chrono::duration_cast<std::chrono::seconds>(
      std::chrono::microseconds(std::min<std::uint64_t>(microseconds, INT64_MAX)));
  if (asked.count() == 0) throw Fault{FaultCode::kInvalidExpiration};
  return std::min<std::chrono::seconds>(asked, kLongestSubscription);
}

Subscription ReadSubscribe(const Envelope& request, WsmanClock::time_point now) {
  const xmlNode* const subscribe = request.body;
  if (!Is(subscribe, uri::kEventing, "Subscribe")) throw Fault{FaultCode::kSchemaValidation};
  Subscription made;
  made.filter = FindFilter(request);
  const xmlNode* const delivery = Child(subscribe, uri::kEventing, "Delivery");
  RefuseOthers(subscribe, delivery);
  const xmlNode* const listener = Child(delivery, uri::kEventing, "NotifyTo");
  made.destination = TextOf(Child(listener, uri::kAddressing, "Address"));
  made.record = RecordOf(made.destination);
  for (const char* name : {"ReferenceProperties", "ReferenceParameters"})
    for (const xmlNode* header : Children(Child(listener, uri::kAddressing, name)))
      made.headers += XmlOf(header);
  if (made.headers.size() > kMostOfHeaders)
    RefuseListener("The listener's reference parameters are too long.");
  made.Extend(ReadExpires(subscribe), now);
  made.id = NewMessageId();
  return made;
}

std::string SubscribeAnswer(const Subscription& subscription) {
  XmlWriter writer;
  writer.Begin("wse:SubscribeResponse");
  writer.Begin("wse:SubscriptionManager").Element("wsa:Address", uri::kAnonymous);
  writer.Begin("wsa:ReferenceParameters")
      .Element("wsman:ResourceURI", uri::kCimSchema + std::string("CIM_FilterCollection"))
      .Element("wse:Identifier", subscription.id);
  writer.End().End().Element("wse:Expires", Duration(subscription.life));
  return writer.End().Written();
}

std::string RenewAnswer(const Subscription& subscription) {
  XmlWriter writer;
  writer.Begin("wse:RenewResponse");
  return writer.Element("wse:Expires", Duration(subscription.life)).End().Written();
}

std::string EventEnvelope(const Subscription& subscription, const Instance* indication) {
  const std::string action = UriOf(indication->def);
  XmlWriter writer;
  writer.Begin("s:Envelope").With("xmlns:s", uri::kSoap).With("xmlns:wsa", uri::kAddressing);
  writer.With("xmlns:wsman", uri::kWsman).With("xmlns:cim", uri::kCimCommon);
  writer.With("xmlns:xsi", uri::kXmlSchemaInstance);
  writer.Begin("s:Header").Element("wsa:To", subscription.destination);
  writer.Element("wsa:Action", action).Element("wsa:MessageID", NewMessageId());
  writer.Raw(subscription.headers).End().Begin("s:Body");
  WriteInstance(indication, Utf8(indication->def->name), action, nullptr, &writer);
  writer.End().End();
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + writer.Written() + "\n";
}

const Subscription& EventSource::Begin(Subscription made) {
  if (subscription_ && subscription_->destination != made.destination)
    throw Fault{FaultCode::kQuotaLimit, "", "The host posts to one listener, which is another."};
  subscription_ = std::move(made);
  commands_.push_back(SubscribeCommand());
  return *subscription_;
}

const Subscription& EventSource::Renew(const std::string& id, std::chrono::seconds life,
                                       WsmanClock::time_point now) {
  if (!IsFor(id)) throw Fault{FaultCode::kUnableToRenew};
  subscription_->Extend(life, now);
  return *subscription_;
}

void EventSource::End(const std::string& id) {
  if (!IsFor(id)) throw Fault{FaultCode::kInvalidMessage};
  Remove();
}

void EventSource::RemoveExpired(WsmanClock::time_point now) {
  if (subscription_ && subscription_->expires <= now) Remove();
}

void EventSource::Remove() {
  subscription_.reset();
  commands_.clear();
  commands_.push_back(SubscribeCommand());
}

// An empty record cancels.
HostCommand EventSource::SubscribeCommand() const {
  return {kIndicationSubscribe,
          BytesOf(subscription_ ? subscription_->record : SubscriptionRecord{})};
}

std::optional<SubscriptionView> EventSource::View() const {
  return subscription_ ? std::optional(subscription_->View()) : std::nullopt;
}

void EventSource::Add(const Instance* indication) {
  if (!subscription_ || !subscription_->Wants(indication->def)) return;
  const std::string text = EventEnvelope(*subscription_, indication);
  if (commands_.size() == kMostCommands) commands_.pop_front();
  commands_.push_back({kIndicationEvent, Bytes(text.begin(), text.end())});
}

void EventSource::HandleHostReady() {
  if (!subscription_) return;
  std::erase_if(commands_, [](const HostCommand& c) { return c.code == kIndicationSubscribe; });
  commands_.push_front(SubscribeCommand());
}

std::optional<HostCommand> EventSource::TakeCommand() {
  if (commands_.empty()) return std::nullopt;
  HostCommand command = std::move(commands_.front());
  commands_.pop_front();
  return command;
}

int EventSource::MillisecondsLeft(WsmanClock::time_point now) const {
  if (!subscription_) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(subscription_->expires - now).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, kMostWait));
}

}  // namespace orrin
