// A viewer without a window, on a VNC client library: the far end of a KVM session for tests and
// for shows. It reads commands from standard input, one a line, and answers each with "done" or
// "failed" when it has been sent or, where it waits for the screen, when that has come. At the end
// of the input it leaves as a viewer does, by closing.
//
//   connect HOST PORT     shakes hands; the first whole picture is asked for and awaited
//   save FILE             the picture as it was last seen, as a PPM
//   refresh               asks for the whole picture and waits for it
//   changed               waits for the next change of the picture
//   key KEYSYM down|up    one key event, KEYSYM as a number
//   type TEXT             each character of the UTF-8 text, pressed and released
//   pointer MASK X Y      one pointer event
//   gorge N               asks N times for the whole picture and reads nothing
//   drop                  breaks the connection without a word (a reset)
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
#include <string_view>

#include "text/code_points.h"

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
    if (!client_) return false;
    client_->GotFrameBufferUpdate = &Viewer::CountUpdate;
    client_->canHandleNewFBSize = FALSE;
    free(client_->serverHost);  // what the library put there it does not free itself
    client_->serverHost = strdup(host.c_str());
    client_->serverPort = port;
    rfbClientSetClientData(client_.get(), Tag(), this);
    // The library frees a client that it couldn't connect.
    rfbClient* client = client_.release();
    if (!rfbInitClient(client, nullptr, nullptr)) return false;
    client_.reset(client);
    return AwaitUpdate();
  }
  bool IsConnected() const { return client_ != nullptr; }
  bool Refresh() { return Ask() && AwaitUpdate(); }
  bool Ask() {
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
    for (int i = 0; i < pixels; i++) {
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
    const bool set = setsockopt(client_->sock, SOL_SOCKET, SO_LINGER, &now, sizeof(now)) == 0;
    client_.reset();
    return set;
  }

 private:
  static void* Tag() {
    static char tag;
    return &tag;
  }
  static void CountUpdate(rfbClient* client, int, int, int, int) {
    static_cast<Viewer*>(rfbClientGetClientData(client, Tag()))->updates_++;
  }

  std::unique_ptr<rfbClient, EndClient> client_;
  int updates_ = 0;
};

// Takes the first code point off `text`; a byte that begins no valid sequence is its own code.
std::uint32_t TakeCharacter(std::string_view* text) {
  const stewardry::DecodedPoint decoded = stewardry::DecodePoint(*text);
  const auto first = static_cast<unsigned char>(text->front());
  text->remove_prefix(decoded.isValid ? decoded.size : 1);
  return decoded.isValid ? decoded.point : first;
}

bool Type(Viewer* viewer, std::string_view text) {
  while (!text.empty()) {
    const std::uint32_t code = TakeCharacter(&text);
    const std::uint32_t keysym = code < 0x100 ? code : kUnicodeKeysym + code;
    if (!viewer->Key(keysym, true) || !viewer->Key(keysym, false)) return false;
  }
  return true;
}

bool Gorge(Viewer* viewer, int count) {
  for (int i = 0; i < count; i++) {
    if (!viewer->Ask()) return false;
  }
  return true;
}

bool Run(Viewer* viewer, const std::string& line) {
  std::istringstream words(line);
  std::string word;
  words >> word;
  if (word == "connect") {
    std::string host;
    int port = 0;
    return words >> host >> port && viewer->Connect(host, port);
  }
  if (!viewer->IsConnected()) return false;
  std::string text;
  std::getline(words >> std::ws, text);
  std::istringstream arguments(text);
  int mask = 0;
  int x = 0;
  int y = 0;
  if (word == "save") return viewer->Save(text);
  if (word == "refresh") return viewer->Refresh();
  if (word == "changed") return viewer->AwaitUpdate();
  if (word == "type") return Type(viewer, text);
  if (word == "pointer") return arguments >> mask >> x >> y && viewer->Pointer(mask, x, y);
  if (word == "gorge") return arguments >> x && Gorge(viewer, x);
  if (word == "drop") return viewer->Drop();
  std::string keysym;
  arguments >> keysym >> text;
  return word == "key" &&
         viewer->Key(static_cast<std::uint32_t>(std::stoul(keysym, nullptr, 0)), text == "down");
}

}  // namespace

int main() {
  rfbEnableClientLogging = FALSE;
  Viewer viewer;
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << (Run(&viewer, line) ? "done" : "failed") << std::endl;
  }
  return 0;
}
