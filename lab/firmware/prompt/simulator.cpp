// orrin, the firmware simulator: the far end of the mailbox, on the lab link. One thread with one
// poll moves the bytes between the link, standard input and the parts that interpret them.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "lab/firmware/core/link.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/prompt/prompt.h"
#include "lab/local/local_socket.h"

namespace orrin {
namespace {

// The most that a mailbox end may leave unread before its link is dropped.
constexpr std::size_t kMaxUnread = std::size_t{16} << 20;

struct Options {
  std::string socketName = "mailbox0";
  std::optional<std::uint16_t> tcpPort;  // instead of the socket; 0 selects a free one
  std::string script;                    // empty: none
  std::string repository;                // the file of the managed objects; empty: none
};

// Accepts a plain file name only: the socket stays within the mailbox folder.
bool IsSocketName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// Fills the options from the command line. Returns false if it is not valid.
bool ReadOptions(int count, char** words, Options* options) {
  bool isNamed = false;
  for (int i = 1; i < count; i += 2) {
    if (i + 1 >= count) return false;
    const std::string_view option = words[i];
    const std::string_view value = words[i + 1];
    if (option == "--socket" && IsSocketName(value)) {
      options->socketName = value;
      isNamed = true;
    } else if (option == "--tcp" && ParseNumber(value, UINT16_MAX)) {
      options->tcpPort = static_cast<std::uint16_t>(*ParseNumber(value, UINT16_MAX));
    } else if (option == "--script" && !value.empty()) {
      options->script = value;
    } else if (option == "--repository" && !value.empty()) {
      options->repository = value;
    } else {
      return false;
    }
  }
  return !(isNamed && options->tcpPort);
}

class Simulator {
 public:
  // Reads commands from `input` and writes events to `output`. The caller owns both.
  Simulator(int input, int output)
      : input_(input),
        trace_(output),
        firmware_(trace_, writer_, tls_),
        prompt_(firmware_, trace_) {}
  // Serves until `quit`, SIGTERM or SIGINT. Returns the process's exit code: 0, or 1 with a line in
  // the trace if it could not start.
  int Run(const Options& options);

 private:
  bool Start(const Options& options);
  bool Listen(const Options& options);
  void Turn();
  void Wait();
  void AcceptMailbox();
  void ReadLink();
  void ReadInput();
  void FlushLink();
  void DropMailbox(const std::string& why);
  void RestoreObjects(const std::string& path);
  void SaveObjects();

  const int input_;
  Trace trace_;
  TlsContext tls_;
  LinkWriter writer_;
  LinkReader reader_;
  Firmware firmware_;
  Prompt prompt_;
  lab::LocalListener local_;
  lab::Descriptor tcp_;
  lab::Descriptor stopSignals_;
  lab::Descriptor mailbox_;
  std::string repositoryPath_;
  std::string savedObjects_;  // the bytes of the file
  bool inputEnded_ = false;
  bool stops_ = false;
};

int Simulator::Run(const Options& options) {
  if (!Start(options)) {
    trace_.Flush();
    return 1;
  }
  while (!stops_ && !prompt_.WantsQuit()) {
    Turn();
    if (!prompt_.WantsQuit()) Wait();
  }
  FlushLink();
  trace_.AddNote("ends");
  trace_.Flush();
  return 0;
}

bool Simulator::Start(const Options& options) {
  if (!tls_.IsGood()) {
    trace_.AddNote("no TLS: " + tls_.Problem());
    return false;
  }
  stopSignals_ = lab::OpenStopSignals();
  if (!stopSignals_) {
    trace_.AddNote(std::string("signalfd: ") + std::strerror(errno));
    return false;
  }
  if (!options.repository.empty()) RestoreObjects(options.repository);
  if (!Listen(options)) return false;
  if (options.script.empty() || prompt_.LoadScript(options.script)) return true;
  trace_.AddNote("cannot read the script " + options.script);
  return false;
}

bool Simulator::Listen(const Options& options) {
  std::string problem;
  if (options.tcpPort) {
    std::uint16_t port = *options.tcpPort;
    tcp_ = lab::ListenLoopback(&port, &problem);
    trace_.AddNote(tcp_ ? Format("listening on 127.0.0.1:%u", port) : "cannot listen: " + problem);
    return static_cast<bool>(tcp_);
  }
  const bool open = local_.Open(lab::LabFolder() + "/mailbox/" + options.socketName, &problem);
  trace_.AddNote(open ? "listening on " + local_.Path() : "cannot listen: " + problem);
  return open;
}

// Runs the commands, sends their output and that of the last messages in one write, and prints the
// trace of both after that.
void Simulator::Turn() {
  prompt_.Run();
  firmware_.Pump();
  FlushLink();
  if (prompt_.TakeDrop()) {
    mailbox_ ? DropMailbox("dropped at the prompt") : trace_.AddNote("no mailbox end is connected");
  }
  SaveObjects();
  trace_.Flush();
}

void Simulator::RestoreObjects(const std::string& path) {
  repositoryPath_ = path;
  savedObjects_ = ReadRepositoryFile(path);
  Repository& objects = firmware_.Wsman().Objects();
  const std::size_t leftOut = objects.Restore(savedObjects_);
  trace_.AddNote(
      Format("%zu objects restored, %zu damaged ones left out", objects.Count(), leftOut));
}

void Simulator::SaveObjects() {
  if (repositoryPath_.empty() || !firmware_.Wsman().TakeChange()) return;
  std::string packed = firmware_.Wsman().Objects().Packed();
  if (packed == savedObjects_) return;
  if (!WriteRepositoryFile(repositoryPath_, packed))
    trace_.AddNote("the objects cannot be saved: " + std::string(std::strerror(errno)));
  savedObjects_ = std::move(packed);
}

void Simulator::FlushLink() {
  if (!mailbox_) return;
  if (!writer_.Flush(mailbox_.Get())) {
    DropMailbox(std::strerror(errno));
  } else if (writer_.Pending() > kMaxUnread) {
    DropMailbox("it does not read what is sent to it");
  }
}

void Simulator::Wait() {
  // poll ignores a negative descriptor.
  const int listener = tcp_ ? tcp_.Get() : local_.Get();
  const short linkEvents = static_cast<short>(POLLIN | (writer_.Pending() > 0 ? POLLOUT : 0));
  pollfd polled[] = {
      {stopSignals_.Get(), POLLIN, 0},
      {mailbox_ ? -1 : listener, POLLIN, 0},
      {mailbox_.Get(), linkEvents, 0},
      {inputEnded_ || !prompt_.HasRoom() ? -1 : input_, POLLIN, 0},
  };
  const int milliseconds = Sooner(prompt_.MillisecondsLeft(), firmware_.MillisecondsLeft());
  if (poll(polled, std::size(polled), milliseconds) <= 0) return;
  if (polled[0].revents != 0) stops_ = true;
  if (polled[1].revents != 0) AcceptMailbox();
  if ((polled[2].revents & (POLLIN | POLLHUP | POLLERR)) != 0) ReadLink();
  if (polled[3].revents != 0) ReadInput();
}

void Simulator::AcceptMailbox() {
  assert(!mailbox_);
  mailbox_ = lab::AcceptOne(tcp_ ? tcp_.Get() : local_.Get());
  if (!mailbox_) return;
  reader_.Clear();
  writer_.Clear();
  firmware_.HandleMailboxArrival();
}

void Simulator::ReadLink() {
  assert(mailbox_);
  const std::span<std::uint8_t> room = reader_.Room();
  const ssize_t count = read(mailbox_.Get(), room.data(), room.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count < 0) return DropMailbox(std::strerror(errno));
  if (count == 0) {
    return DropMailbox(reader_.Torn() ? "the link ended within a message" : "the link was closed");
  }
  reader_.Filled(static_cast<std::size_t>(count));
  LinkMessage message;
  LinkReader::Result result;
  while ((result = reader_.Next(&message)) == LinkReader::Result::kMessage) {
    if (!firmware_.HandleMessage(message)) return DropMailbox("malformed request");
  }
  if (result == LinkReader::Result::kMalformed) DropMailbox("malformed head");
}

void Simulator::ReadInput() {
  char bytes[4096];
  const ssize_t count = read(input_, bytes, sizeof bytes);
  if (count > 0) return prompt_.HandleInput({bytes, static_cast<std::size_t>(count)});
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  inputEnded_ = true;
  prompt_.EndInput();
}

void Simulator::DropMailbox(const std::string& why) {
  assert(mailbox_);
  mailbox_.Close();
  firmware_.HandleMailboxLoss(why);
  trace_.AddNote("waiting for a mailbox end");
}

}  // namespace
}  // namespace orrin

int main(int count, char** words) {
  orrin::Options options;
  if (!orrin::ReadOptions(count, words, &options)) {
    std::fputs("usage: orrin [--socket NAME | --tcp PORT] [--script FILE] [--repository FILE]\n",
               stderr);
    return 2;
  }
  return orrin::Simulator(STDIN_FILENO, STDOUT_FILENO).Run(options);
}
