// cim_ship: the object library between two processes. One makes a request that holds an instance
// and ships it; the other restores it and prints the instance. Both run on Linux and on Windows.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "lab/cim/create_request.h"
#include "lab/cim/description.h"
#include "lab/cim/shipment.h"
#include "platform/process.h"
#include "text/code_points.h"

namespace {

using namespace stewardry;
using namespace stewardry::cim;

int Fail(const char* what) {
  std::fprintf(stderr, "cim_ship: %s\n", what);
  return 1;
}

int Usage() { return Fail("usage: cim_ship receive PORT | cim_ship send PORT [NAME]"); }

std::uint16_t PortOf(std::string_view text) {
  std::uint16_t port = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), port);
  return read.ec == std::errc() && read.ptr == text.data() + text.size() ? port : 0;
}

// A socket that is closed at the end of its block.
struct Closing {
  Sock sock = kInvalidSock;
  ~Closing() {
    if (sock != kInvalidSock) (void)Sock_Close(sock);  // no failure matters at this point
  }
};

int Print(const Message* message) {
  const cim_ship::CreateInstanceRequest* request = cim_ship::AsCreateRequest(message);
  if (request == nullptr || request->instance == nullptr) return Fail("no CreateInstanceReq");
  std::printf("%s %llu\n", Message_TagName(message->tag),
              static_cast<unsigned long long>(message->correlationId));
  std::fputs(cim_ship::Describe(request->instance).c_str(), stdout);
  return 0;
}

int Receive(std::uint16_t port) {
  Addr address;
  Closing listener, peer;
  if (Addr_Resolve(&address, "127.0.0.1", port, false) != RESULT_OK ||
      Sock_CreateListener(&listener.sock, address) != RESULT_OK)
    return Fail("cannot listen on this port");
  std::puts("waiting for a shipment");
  std::fflush(stdout);
  RemoteAddress from;
  if (Sock_Accept(listener.sock, &peer.sock, &from) != RESULT_OK)
    return Fail("accepting the sender failed");
  Message* message = nullptr;
  const char* fault = cim_ship::Shipment_Receive(peer.sock, &message);
  if (fault != nullptr) return Fail(fault);
  const int code = Print(message);
  Message_Drop(message);
  return code;
}

int Send(std::uint16_t port, const std::u16string& name) {
  const std::string target = "127.0.0.1:" + std::to_string(port);
  Closing peer;
  if (Sock_ConnectTo(&peer.sock, target.c_str()) != RESULT_OK)
    return Fail("cannot connect to this port");
  cim_ship::CreateInstanceRequest* request = cim_ship::MakeCreateRequest(7, name.c_str());
  if (request == nullptr) return Fail("out of memory");
  const bool sent = cim_ship::Shipment_Send(peer.sock, &request->head);
  Message_Drop(&request->head);
  return sent ? 0 : Fail("sending the shipment failed");
}

int Run(int count, char** arguments) {
  if (count < 3) return Usage();
  const std::string_view command = arguments[1];
  const std::uint16_t port = PortOf(arguments[2]);
  if (port == 0) return Usage();
  if (command == "receive" && count == 3) return Receive(port);
  if (command != "send" || count > 4) return Usage();
  return Send(port, Utf16(count == 4 ? arguments[3] : "fan-1"));
}

}  // namespace

int main(int count, char** arguments) {
  (void)platform::PrepareProcess();  // without it a socket may have a standard descriptor's number
  if (Sock_Start() != RESULT_OK) return Fail("starting the sockets failed");
  const int code = Run(count, arguments);
  Sock_Stop();
  return code;
}
