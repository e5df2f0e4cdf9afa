// Requests of WS-Management to the firmware simulator: Get, and Enumerate of 100 instances. An item
// is a request. `https` is the whole of it on a TLS connection that stays, client and server in
// this thread; `answer` leaves TLS and HTTP out; `library` does only what the CIM object library
// does for it: find the instances, copy those of an enumeration, take every property as text. `map`
// does the same with std::map<std::u16string, std::variant>.
#include <benchmark/benchmark.h>
#include <openssl/ssl.h>

#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "lab/firmware/dash/dash_session.h"
#include "lab/firmware/wsman/names.h"

namespace orrin {
namespace {

constexpr int kInstances = 100;
constexpr char kClass[] = "CIM_SoftwareIdentity";

void Require(bool isTrue) {
  if (!isTrue) std::abort();
}

std::string IdOf(int number) { return "bench:" + std::to_string(number); }

struct Firmware final : DashOutput {
  Firmware() {
    for (int i = 0; i < kInstances; ++i) {
      Object made = MakeObject(*FindClass(kClass));
      Require(made != nullptr && SetText(made.get(), u"InstanceID", IdOf(i)) &&
              SetText(made.get(), u"ElementName", "A program that is installed") &&
              SetText(made.get(), u"VersionString", "1.0.0.533") &&
              SetText(made.get(), u"Manufacturer", "Corvane") &&
              SetTexts(made.get(), u"OperationalStatus", {"2"}) &&
              SetText(made.get(), u"HealthState", "5"));
      wsman.Objects().Put(std::move(made));
    }
  }
  void SendDashBytes(ByteView bytes) override {
    sent.insert(sent.end(), bytes.begin(), bytes.end());
  }
  void SendCommand(std::uint8_t) override {}
  bool HasRoom() const override { return true; }
  void AddNote(const std::string&) override {}

  Inventory inventory;
  FirmwareView view{"2.4.1.0", true};
  HttpUsers users;
  WsmanService wsman;
  Bytes sent;
};

std::string Request(const std::string& action, const std::string& headers,
                    const std::string& body) {
  return "<s:Envelope xmlns:s=\"" + std::string(uri::kSoap) + "\" xmlns:a=\"" + uri::kAddressing +
         "\" xmlns:w=\"" + uri::kWsman + "\" xmlns:e=\"" + uri::kEnumeration +
         "\"><s:Header><a:Action>" + action + "</a:Action><a:MessageID>uuid:1</a:MessageID>" +
         "<w:ResourceURI>" + uri::kCimSchema + kClass + "</w:ResourceURI>" + headers +
         "</s:Header><s:Body>" + body + "</s:Body></s:Envelope>";
}
std::string GetRequest() {
  return Request(std::string(uri::kTransfer) + "/Get",
                 "<w:SelectorSet><w:Selector Name=\"InstanceID\">" + IdOf(kInstances / 2) +
                     "</w:Selector></w:SelectorSet>",
                 "");
}
std::string EnumerateRequest() {
  return Request(std::string(uri::kEnumeration) + "/Enumerate", "",
                 "<e:Enumerate><w:OptimizeEnumeration/><w:MaxElements>200</w:MaxElements>"
                 "</e:Enumerate>");
}

// --- the whole, and without TLS and HTTP ---

struct FreeSsl {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct FreeContext {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

class Console {
 public:
  explicit Console(Firmware* firmware)
      : firmware_(*firmware),
        session_(server_, {firmware->inventory, firmware->view, firmware->wsman, firmware->users},
                 *firmware),
        context_(SSL_CTX_new(TLS_client_method())),
        ssl_(SSL_new(context_.get())) {
    SSL_set_bio(ssl_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_connect_state(ssl_.get());
    while (SSL_do_handshake(ssl_.get()) != 1) Exchange();
    Exchange();
  }

  // Returns the size of the answer's body.
  std::size_t Post(const std::string& body) {
    const std::string request =
        "POST /wsman HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    Require(SSL_write(ssl_.get(), request.data(), static_cast<int>(request.size())) > 0);
    Exchange();
    answer_.clear();
    char piece[16384];
    for (int count; (count = SSL_read(ssl_.get(), piece, sizeof piece)) > 0;)
      answer_.append(piece, static_cast<std::size_t>(count));
    Require(answer_.starts_with("HTTP/1.1 200") && answer_.ends_with("Envelope>\n"));
    return answer_.size();
  }

 private:
  void Exchange() {
    char* bytes = nullptr;
    BIO* const out = SSL_get_wbio(ssl_.get());
    const long count = BIO_get_mem_data(out, &bytes);
    const Bytes ciphertext(bytes, bytes + count);
    (void)BIO_reset(out);
    session_.Receive(ciphertext);
    Bytes sent = std::exchange(firmware_.sent, {});
    if (sent.empty()) return;
    Require(BIO_write(SSL_get_rbio(ssl_.get()), sent.data(), static_cast<int>(sent.size())) > 0);
  }

  Firmware& firmware_;
  TlsContext server_;
  DashSession session_;
  std::unique_ptr<SSL_CTX, FreeContext> context_;
  std::unique_ptr<SSL, FreeSsl> ssl_;
  std::string answer_;
};

void Https(benchmark::State& state, const std::string& request) {
  Firmware firmware;
  Console console(&firmware);
  for (auto _ : state) benchmark::DoNotOptimize(console.Post(request));
  state.SetItemsProcessed(state.iterations());
}

void Answer(benchmark::State& state, const std::string& request) {
  Firmware firmware;
  for (auto _ : state) {
    const WsmanAnswer answer =
        firmware.wsman.Answer(request, firmware.inventory, firmware.view, true, WsmanClock::now());
    Require(answer.status == 200);
  }
  state.SetItemsProcessed(state.iterations());
}

// --- the library's part ---

std::size_t TextSize(const cim::Instance* instance) {
  std::size_t size = 0;
  for (const Property& p : PropertiesOf(instance))
    for (const std::string& text : TextsOf(p)) size += text.size() + Utf8(p.name).size();
  return size;
}

void LibraryGet(benchmark::State& state) {
  Firmware firmware;
  for (auto _ : state) {
    const Object key = MakeObject(*FindClass(kClass));
    Require(SetText(key.get(), u"InstanceID", IdOf(kInstances / 2)));
    benchmark::DoNotOptimize(TextSize(firmware.wsman.Objects().Find(key.get())));
  }
  state.SetItemsProcessed(state.iterations());
}

void LibraryEnumerate(benchmark::State& state) {
  Firmware firmware;
  for (auto _ : state) {
    std::vector<Object> copies;
    for (const cim::Instance* found : firmware.wsman.Objects().OfClass(*FindClass(kClass)))
      copies.push_back(CopyObject(found));
    Require(copies.size() == kInstances);
    for (const Object& copy : copies) benchmark::DoNotOptimize(TextSize(copy.get()));
  }
  state.SetItemsProcessed(state.iterations());
}

// --- the same with a map ---

using Value =
    std::variant<std::monostate, bool, std::uint16_t, std::u16string, std::vector<std::uint16_t>>;
struct MapObject {
  std::u16string className;
  std::map<std::u16string, Value> properties;
};

std::string NumberText(unsigned number) {
  char digits[16];
  return {digits, std::to_chars(digits, digits + sizeof digits, number).ptr};
}

std::vector<std::string> TextsIn(const Value& value) {
  if (const auto* flag = std::get_if<bool>(&value)) return {*flag ? "true" : "false"};
  if (const auto* number = std::get_if<std::uint16_t>(&value)) return {NumberText(*number)};
  if (const auto* text = std::get_if<std::u16string>(&value)) return {Utf8(text->c_str())};
  std::vector<std::string> texts;
  if (const auto* numbers = std::get_if<std::vector<std::uint16_t>>(&value))
    for (const std::uint16_t number : *numbers) texts.push_back(NumberText(number));
  return texts;
}

std::size_t TextSize(const MapObject& object) {
  std::size_t size = 0;
  for (const auto& [name, value] : object.properties)
    for (const std::string& text : TextsIn(value)) size += text.size() + Utf8(name.c_str()).size();
  return size;
}

std::vector<std::unique_ptr<MapObject>> MapObjects() {
  std::vector<std::unique_ptr<MapObject>> objects;
  for (int i = 0; i < kInstances; ++i)
    objects.push_back(std::make_unique<MapObject>(
        MapObject{Utf16(kClass),
                  {{u"Caption", {}},
                   {u"Description", {}},
                   {u"ElementName", u"A program that is installed"},
                   {u"InstallDate", {}},
                   {u"Name", {}},
                   {u"OperationalStatus", std::vector<std::uint16_t>{2}},
                   {u"HealthState", std::uint16_t{5}},
                   {u"InstanceID", Utf16(IdOf(i))},
                   {u"VersionString", u"1.0.0.533"},
                   {u"Manufacturer", u"Corvane"},
                   {u"IsEntity", true}}}));
  return objects;
}

void MapGet(benchmark::State& state) {
  const auto objects = MapObjects();
  for (auto _ : state) {
    const std::u16string className = Utf16(kClass);
    const Value key = Utf16(IdOf(kInstances / 2));
    const MapObject* found = nullptr;
    for (const auto& object : objects) {
      if (object->className != className || object->properties.at(u"InstanceID") != key) continue;
      found = object.get();
      break;
    }
    Require(found != nullptr);
    benchmark::DoNotOptimize(TextSize(*found));
  }
  state.SetItemsProcessed(state.iterations());
}

void MapEnumerate(benchmark::State& state) {
  const auto objects = MapObjects();
  for (auto _ : state) {
    const std::u16string className = Utf16(kClass);
    std::vector<std::unique_ptr<MapObject>> copies;
    for (const auto& object : objects)
      if (object->className == className) copies.push_back(std::make_unique<MapObject>(*object));
    for (const auto& copy : copies) benchmark::DoNotOptimize(TextSize(*copy));
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(Https, get, GetRequest())->Name("wsman/https/get");
BENCHMARK_CAPTURE(Answer, get, GetRequest())->Name("wsman/answer/get");
BENCHMARK(LibraryGet)->Name("wsman/library/get");
BENCHMARK(MapGet)->Name("wsman/map/get");
BENCHMARK_CAPTURE(Https, enumerate, EnumerateRequest())->Name("wsman/https/enumerate");
BENCHMARK_CAPTURE(Answer, enumerate, EnumerateRequest())->Name("wsman/answer/enumerate");
BENCHMARK(LibraryEnumerate)->Name("wsman/library/enumerate");
BENCHMARK(MapEnumerate)->Name("wsman/map/enumerate");

}  // namespace
}  // namespace orrin
