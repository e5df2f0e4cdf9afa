// The wireless service. It exists if the host has a wireless interface or the lab folder has
// `wlan.txt`, which then lists the interfaces: one state number a line. Changes arrive as datagrams
// on the socket `wlan` in the lab folder: "connected", "disconnected", or a source and a code as
// numbers ("8 10"). `wlan_profiles.txt` holds the profiles, one a line: the interface's number from
// 0 on, flags, the name without blanks, and its XML text.
#include "platform/wlan.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>

#include "platform/linux/hostfacts/interfaces.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/utf16.h"
#include "platform/linux/runtime/wait.h"
#include "platform/thread.h"

namespace platform {

namespace {

// Returns the states of the interfaces; nothing if there is no wireless service.
std::optional<std::vector<std::uint32_t>> InterfaceStates() {
  std::vector<std::uint32_t> states;
  if (std::ifstream lab(LabPath("wlan.txt")); lab) {
    for (std::uint32_t state; lab >> state;) states.push_back(state);
    return states;
  }
  for (const Interface& interface : ListInterfaces())
    if (interface.wireless)
      states.push_back(interface.up ? kWlanStateConnected : kWlanStateDisconnected);
  if (states.empty()) return std::nullopt;
  return states;
}

// Returns the GUID of the n-th interface.
Guid GuidOf(std::size_t number) {
  Guid guid{0x5754, 0x4C41, 0x4E00, {0x80}};
  guid.data4[7] = static_cast<std::uint8_t>(number);
  return guid;
}

struct LabProfile {
  WlanProfile profile;
  std::u16string xml;
};

// Returns the profiles of one interface, in the order of their lines.
std::vector<LabProfile> ProfilesOf(const Guid& interfaceGuid) {
  std::vector<LabProfile> profiles;
  std::ifstream file(LabPath("wlan_profiles.txt"));
  std::uint32_t interface = 0;
  std::uint32_t flags = 0;
  for (std::string name, xml; file >> interface >> flags >> name && std::getline(file, xml);)
    if (interface == interfaceGuid.data4[7])
      profiles.push_back({{Utf8ToUtf16(name), flags},
                          Utf8ToUtf16(xml.substr(std::min<std::size_t>(1, xml.size())))});
  return profiles;
}

std::optional<WlanNotification> ReadNotification(const std::string& text) {
  std::istringstream words(text);
  std::string word;
  words >> word;
  if (word == "connected")
    return WlanNotification{kWlanNotificationSourceAcm, kWlanConnectionComplete};
  if (word == "disconnected")
    return WlanNotification{kWlanNotificationSourceAcm, kWlanDisconnected};
  std::istringstream numbers(text);
  WlanNotification notification;
  if (numbers >> notification.source >> notification.code) return notification;
  return std::nullopt;
}

// The one registration: a callback, and the thread that calls it until the process exits.
class Listener {
 public:
  // Replaces an earlier registration. Returns kErrorSuccess or an error.
  std::uint32_t Register(WlanCallback callback, void* context) {
    std::lock_guard guard(lock_);
    callback_ = callback;
    context_ = context;
    return socket_ ? kErrorSuccess : Start();
  }

 private:
  std::uint32_t Start() {
    socket_.emplace(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!*socket_ || !BindLabSocket(socket_->Value(), "wlan")) {
      SetLastErrorFromErrno(errno);
    } else if (CreateThread(Run, this)) {
      return kErrorSuccess;
    }
    socket_.reset();
    return LastError();
  }

  static std::uint32_t Run(void* self) {
    auto* listener = static_cast<Listener*>(self);
    for (;;) listener->Receive();
  }

  void Receive() {
    int socket;
    {
      std::lock_guard guard(lock_);
      socket = socket_->Value();
    }
    if (!WaitReadable(socket, -1)) return;
    char text[64];
    const ssize_t size = ::recv(socket, text, sizeof text, 0);
    if (size < 0) return;
    if (const auto notification = ReadNotification({text, static_cast<std::size_t>(size)}))
      Deliver(*notification);
  }

  // Also delivers a source that wasn't registered for, so that a test can see the service drop it.
  void Deliver(const WlanNotification& notification) {
    WlanCallback callback;
    void* context;
    {
      std::lock_guard guard(lock_);
      callback = callback_;
      context = context_;
    }
    callback(notification, context);  // outside the lock: it may block
  }

  std::mutex lock_;  // guards all below; held for a few instructions, or while the thread starts
  WlanCallback callback_ = nullptr;
  void* context_ = nullptr;
  std::optional<Descriptor> socket_;  // stays open once the thread runs
};

Listener& TheListener() {
  static ProcessLifetime<Listener> listener;
  return *listener;
}

}  // namespace

std::uint32_t WlanOpenHandle(WlanHandle* handle) {
  if (const std::uint32_t error = gate::Enter("WlanOpenHandle")) return error;
  if (!InterfaceStates()) return kErrorServiceNotActive;
  *handle = &TheListener();
  return kErrorSuccess;
}

std::uint32_t WlanCloseHandle(WlanHandle handle) {
  if (const std::uint32_t error = gate::Enter("WlanCloseHandle")) return error;
  return handle != nullptr ? kErrorSuccess : kErrorInvalidParameter;
}

std::uint32_t WlanRegisterNotification(WlanHandle handle, std::uint32_t source,
                                       WlanCallback callback, void* context) {
  if (const std::uint32_t error = gate::Enter("WlanRegisterNotification", "%u", source))
    return error;
  if (handle == nullptr || callback == nullptr) return kErrorInvalidParameter;
  return static_cast<Listener*>(handle)->Register(callback, context);
}

std::uint32_t WlanEnumInterfaces(WlanHandle handle, WlanInterfaceList* list) {
  *list = {};
  if (const std::uint32_t error = gate::Enter("WlanEnumInterfaces")) return error;
  if (handle == nullptr) return kErrorInvalidParameter;
  auto states = InterfaceStates();
  if (!states) return kErrorServiceNotActive;
  list->states = std::move(*states);
  for (std::size_t i = 0; i < list->states.size(); ++i) list->guids.push_back(GuidOf(i));
  return kErrorSuccess;
}

std::uint32_t WlanGetProfileList(WlanHandle handle, const Guid& interfaceGuid,
                                 std::vector<WlanProfile>* profiles) {
  profiles->clear();
  if (const std::uint32_t error = gate::Enter("WlanGetProfileList")) return error;
  if (handle == nullptr) return kErrorInvalidParameter;
  for (LabProfile& known : ProfilesOf(interfaceGuid)) profiles->push_back(std::move(known.profile));
  return kErrorSuccess;
}

std::uint32_t WlanGetProfile(WlanHandle handle, const Guid& interfaceGuid,
                             const std::u16string& name, std::u16string* xml) {
  xml->clear();
  if (const std::uint32_t error = gate::Enter("WlanGetProfile", "%s", Utf16ToUtf8(name).c_str()))
    return error;
  if (handle == nullptr) return kErrorInvalidParameter;
  for (LabProfile& known : ProfilesOf(interfaceGuid)) {
    if (known.profile.name != name) continue;
    *xml = std::move(known.xml);
    return kErrorSuccess;
  }
  return kErrorNotFound;
}

}  // namespace platform
