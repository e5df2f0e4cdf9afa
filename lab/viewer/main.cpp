// vnc_viewer, a viewer without a window on a VNC client library: the far end of a KVM session for
// tests and demos. It reads commands from standard input, one a line, and answers each with "done"
// or "failed" once it has been sent or, for one that waits for the screen, once that has arrived.
// At the end of the input it closes the connection and exits.
//
//   connect HOST PORT     connects and waits for the first whole picture
//   save FILE             writes the picture as last seen, as a PPM
//   refresh               requests the whole picture and waits for it
//   changed               waits for the next change of the picture
//   key KEYSYM down|up    sends one key event, KEYSYM as a number
//   type TEXT             presses and releases each character of the UTF-8 text
//   pointer MASK X Y      sends one pointer event
//   gorge N               requests the whole picture N times and reads nothing
//   drop                  breaks the connection with a reset
#include <rfb/rfbclient.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

namespace {

constexpr int kPatienceMicroseconds = 30'000'000;
// Keysyms of characters beyond Latin-1 are their code points above this (X11 protocol, appendix A).
constexpr std::uint32_t kUnicodeKeysym = 0x01000000;

struct EndClient {
  void operator()(rfbClient* client) const {
    free(client->frameBuffer);
    client->frameBuffer = nullptr;
    rfbClientCleanup(client);
  }
};

class Viewer {
 public:
  bool Connect(const std::string& host, int port) {
    constexpr int kBitsPerSample = 8;
    constexpr int kSamples = 3;
    constexpr int kBytesPerPixel = 4;
    client_.reset(rfbGetClient(kBitsPerSample, kSamples, kBytesPerPixel));
    if (client_ == nullptr) return false;
    client_->GotFrameBufferUpdate = &Viewer::CountUpdate;
    client_->canHandleNewFBSize = FALSE;
    free(client_->serverHost);  // the library does not free its own value
    client_->serverHost = strdup(host.c_str());
    client_->serverPort = port;
    rfbClientSetClientData(client_.get(), Tag(), this);
    // The library frees a client that it could not connect.
    rfbClient* client = client_.release();
    if (!rfbInitClient(client, nullptr, nullptr)) return false;
    client_.reset(client);
    return AwaitUpdate();
  }
  bool IsConnected() const { return client_ != nullptr; }
  bool Refresh() { return RequestUpdate() && AwaitUpdate(); }
  bool RequestUpdate() {
    return SendFramebufferUpdateRequest(client_.get(), 0, 0, client_->width, client_->height,
                                        FALSE);
  }
  bool AwaitUpdate() {
    for (updates_ = 0; updates_ == 0;) {
      if (WaitForMessage(client_.get(), kPatienceMicroseconds) <= 0) return false;
      if (!HandleRFBServerMessage(client_.get())) return false;
    }
    return true;
  }
  bool Save(const std::string& path) const {
    std::ofstream file(path, std::ios::binary);
    file << "P6\n" << client_->width << " " << client_->height << "\n255\n";
    const int pixels = client_->width * client_->height;
    const rfbPixelFormat& format = client_->format;
    for (int i = 0; i < pixels; ++i) {
      const std::uint32_t pixel = reinterpret_cast<const std::uint32_t*>(client_->frameBuffer)[i];
      for (const int shift : {format.redShift, format.greenShift, format.blueShift}) {
        file.put(static_cast<char>(pixel >> shift));
      }
    }
    return static_cast<bool>(file.flush());
  }
  bool Key(std::uint32_t keysym, bool down) { return SendKeyEvent(client_.get(), keysym, down); }
  bool Pointer(int mask, int x, int y) { return SendPointerEvent(client_.get(), x, y, mask); }
  // Zero linger: close sends a reset.
  bool Drop() {
    const linger now = {1, 0};
    const bool set = setsockopt(client_->sock, SOL_SOCKET, SO_LINGER, &now, sizeof now) == 0;
    client_.reset();
    return set;
  }

 private:
  static void* Tag() {
    static char tag;
    return &tag;
  }
  static void CountUpdate(rfbClient* client, int, int, int, int) {
    ++static_cast<Viewer*>(rfbClientGetClientData(client, Tag()))->updates_;
  }

  std::unique_ptr<rfbClient, EndClient> client_;
  int updates_ = 0;
};

// The next code point of UTF-8 text; a byte that doesn't begin one stands for itself.
std::uint32_t NextCharacter(const std::string& text, std::size_t* at) {
  const auto first = static_cast<unsigned char>(text[(*at)++]);
  const int more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
  std::uint32_t code = more == 0 ? first : first & (0x3Fu >> more);
  for (int i = 0; i < more && *at < text.size(); i++) {
    code = code << 6 | (static_cast<unsigned char>(text[(*at)++]) & 0x3Fu);
  }
  return code;
}

bool Type(Viewer* viewer, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::uint32_t code = NextCharacter(text, &at);
    const std::uint32_t keysym = code < 0x100 ? code : kUnicodeKeysym + code;
    if (!viewer->Key(keysym, true) || !viewer->Key(keysym, false)) return false;
  }
  return true;
}

// Sets `*text` to the rest of the line without leading blanks.
void ReadRest(std::istringstream* arguments, std::string* text) {
  std::getline(*arguments >> std::ws, *text);
}

bool RunConnect(Viewer* viewer, std::istringstream* arguments) {
  std::string host;
  int port = 0;
  return *arguments >> host >> port && viewer->Connect(host, port);
}

bool RunSave(Viewer* viewer, std::istringstream* arguments) {
  std::string path;
  ReadRest(arguments, &path);
  return viewer->Save(path);
}

bool RunRefresh(Viewer* viewer, std::istringstream*) { return viewer->Refresh(); }
bool RunChanged(Viewer* viewer, std::istringstream*) { return viewer->AwaitUpdate(); }
bool RunDrop(Viewer* viewer, std::istringstream*) { return viewer->Drop(); }

bool RunKey(Viewer* viewer, std::istringstream* arguments) {
  std::string keysym, state;
  if (!(*arguments >> keysym >> state)) return false;
  return viewer->Key(static_cast<std::uint32_t>(std::stoul(keysym, nullptr, 0)), state == "down");
}

bool RunType(Viewer* viewer, std::istringstream* arguments) {
  std::string text;
  ReadRest(arguments, &text);
  return Type(viewer, text);
}

bool RunPointer(Viewer* viewer, std::istringstream* arguments) {
  int mask = 0, x = 0, y = 0;
  return *arguments >> mask >> x >> y && viewer->Pointer(mask, x, y);
}

bool RunGorge(Viewer* viewer, std::istringstream* arguments) {
  int count = 0;
  if (!(*arguments >> count)) return false;
  for (int i = 0; i < count; ++i) {
    if (!viewer->RequestUpdate()) return false;
  }
  return true;
}

struct Command {
  std::string_view word;
  bool (*run)(Viewer* viewer, std::istringstream* arguments);
};

constexpr Command kCommands[] = {
    {"connect", RunConnect}, {"save", RunSave},   {"refresh", RunRefresh},
    {"changed", RunChanged}, {"key", RunKey},     {"type", RunType},
    {"pointer", RunPointer}, {"gorge", RunGorge}, {"drop", RunDrop},
};

bool RunLine(Viewer* viewer, const std::string& line) {
  std::istringstream arguments(line);
  std::string word;
  arguments >> word;
  if (word != "connect" && !viewer->IsConnected()) return false;
  for (const Command& command : kCommands) {
    if (command.word == word) return command.run(viewer, &arguments);
  }
  return false;
}

}  // namespace

int main() {
  rfbEnableClientLogging = FALSE;
  Viewer viewer;
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << (RunLine(&viewer, line) ? "done" : "failed") << std::endl;
  }
  return 0;
}
