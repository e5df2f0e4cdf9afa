#include "lab/scm/manager.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <optional>

#include "lab/local/local_socket.h"
#include "lab/scm/child.h"
#include "lab/scm/controls.h"
#include "lab/scm/line_stream.h"

namespace scm {
namespace {

// How long the service may take for one control, and for its stop.
constexpr std::chrono::seconds kControlBound{30};
constexpr std::chrono::seconds kStopBound{30};
constexpr std::size_t kMaxPeers = 64;
constexpr std::size_t kMaxHistory = 256;

void PrintLine(const std::string& words) {
  std::printf("scm: %s\n", words.c_str());
  std::fflush(stdout);
}

std::string Joined(const std::vector<std::uint32_t>& states) {
  std::string text;
  for (std::uint32_t state : states) text += (text.empty() ? "" : ", ") + StateName(state);
  return text.empty() ? "none" : text;
}

const char* ErrorWords(std::uint32_t error) {
  switch (error) {
    case kErrorServiceRequestTimeout:
      return "the service did not respond in time";
    case kErrorServiceCannotAcceptCtrl:
      return "the service cannot accept control messages now";
    case kErrorServiceNotActive:
      return "the service has not been started";
    default:
      return "refused";
  }
}

std::string DescribeError(std::uint32_t error) {
  return "error " + std::to_string(error) + ": " + ErrorWords(error);
}

// Starts the service's process, keeps its status, and delivers controls to it, one at a time as
// Windows does. One thread.
class Manager {
 public:
  int Run(const std::string& socketPath, const std::vector<std::string>& program);

 private:
  using Clock = std::chrono::steady_clock;
  enum class Role { kUnknown, kService, kClient };
  struct Peer {
    explicit Peer(lab::Descriptor socket) : stream(std::move(socket)) {}
    LineStream stream;
    Role role = Role::kUnknown;
    bool isClosed = false;
    bool isServed = false;  // its EXIT line is queued; removed once that is written
    // For a client.
    std::optional<Clock::time_point> deadline;
    bool waitsForStop = false;
    std::vector<std::uint32_t> statesSeen;
  };
  // A control. The first one is at the service, the others wait.
  struct Delivery {
    Control control;
    Peer* client;  // null: requested by a signal, or the client has closed
    bool isSent = false;
    Clock::time_point deadline{};
  };

  void Turn();
  int MillisecondsLeft() const;
  void AcceptPeers();
  void HandleLines(Peer& peer);
  void HandleFirstLine(Peer& peer, const std::string& line);
  void HandleServiceLine(const std::string& line);
  void HandleStatus(const Status& status);
  void HandleResult(const std::string& number);
  void HandleCommand(Peer& client, const std::string& line);
  void ShowStatus(Peer& client);
  void Deliver(Control control, Peer* client);
  void SendNext();
  void FinishClient(Peer& client, int exitCode, const std::string& words);
  void FinishIfStopped(Peer& client);
  void ExpireDeadlines();
  void HandleServiceLoss();
  void RemoveClosed();
  void StopBySignal();
  int FinishRun(int waitStatus);

  lab::LocalListener listener_;
  lab::Descriptor signals_;
  Child child_;
  std::vector<std::unique_ptr<Peer>> peers_;
  Peer* service_ = nullptr;
  std::string serviceName_;
  std::optional<Status> status_;
  std::vector<std::string> settings_;
  std::vector<std::uint32_t> history_;
  std::deque<Delivery> deliveries_;
  bool stopRequested_ = false;
};

int Manager::Run(const std::string& socketPath, const std::vector<std::string>& program) {
  std::string problem;
  signals_ = lab::OpenStopSignals();
  if (!signals_ || !listener_.Open(socketPath, &problem) || !child_.Start(program, &problem)) {
    PrintLine("cannot start: " + problem);
    return 1;
  }
  PrintLine("started " + program[0] + ", process " + std::to_string(child_.Id()));
  while (true) {
    Turn();
    if (const auto ended = child_.Reap()) return FinishRun(*ended);
  }
}

void Manager::Turn() {
  std::vector<pollfd> polled = {{child_.Watch(), POLLIN, 0},
                                {signals_.Get(), POLLIN, 0},
                                {peers_.size() < kMaxPeers ? listener_.Get() : -1, POLLIN, 0}};
  const std::size_t first = polled.size();
  for (const auto& peer : peers_) {
    const int events = POLLIN | (peer->stream.HasOutput() ? POLLOUT : 0);
    polled.push_back({peer->stream.Get(), static_cast<short>(events), 0});
  }
  if (poll(polled.data(), polled.size(), MillisecondsLeft()) < 0) return;
  if (polled[1].revents != 0) StopBySignal();
  for (std::size_t i = first; i < polled.size(); ++i) {
    Peer& peer = *peers_[i - first];
    if ((polled[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    peer.isClosed = !peer.stream.Read();
    HandleLines(peer);
  }
  if (polled[2].revents != 0) AcceptPeers();
  ExpireDeadlines();
  RemoveClosed();
}

int Manager::MillisecondsLeft() const {
  std::optional<Clock::time_point> next;
  auto consider = [&next](Clock::time_point time) { next = next ? std::min(*next, time) : time; };
  if (!deliveries_.empty() && deliveries_.front().isSent) consider(deliveries_.front().deadline);
  for (const auto& peer : peers_) {
    if (peer->deadline) consider(*peer->deadline);
  }
  if (!next) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

void Manager::AcceptPeers() {
  while (peers_.size() < kMaxPeers) {
    lab::Descriptor accepted = lab::AcceptOne(listener_.Get());
    if (!accepted) return;
    peers_.push_back(std::make_unique<Peer>(std::move(accepted)));
  }
}

void Manager::HandleLines(Peer& peer) {
  while (auto line = peer.stream.Line()) {
    switch (peer.role) {
      case Role::kUnknown:
        HandleFirstLine(peer, *line);
        break;
      case Role::kService:
        HandleServiceLine(*line);
        break;
      case Role::kClient:
        HandleCommand(peer, *line);
        break;
    }
    if (peer.isClosed) return;
  }
}

void Manager::HandleFirstLine(Peer& peer, const std::string& line) {
  const std::vector<std::string> words = Words(line);
  if (words.size() == 1 && words[0] == "CLIENT") {
    peer.role = Role::kClient;
  } else if (words.size() == 2 && words[0] == "SERVICE" && service_ == nullptr) {
    peer.role = Role::kService;
    service_ = &peer;
    serviceName_ = words[1];
    settings_.clear();
    history_.clear();
    status_ = Status();
    PrintLine(serviceName_ + " has connected");
  } else {
    PrintLine("a connection was refused: \"" + line.substr(0, 80) + "\"");
    peer.isClosed = true;
  }
}

void Manager::HandleServiceLine(const std::string& line) {
  assert(service_ != nullptr);
  const std::size_t blank = std::min(line.find(' '), line.size());
  const std::string word = line.substr(0, blank);
  const std::string rest = line.substr(std::min(blank + 1, line.size()));
  if (word == "POWERSETTING") {
    if (settings_.size() < kMaxHistory)
      settings_.push_back(Words(rest).empty() ? "" : Words(rest)[0]);
    PrintLine("registered for power setting " + rest);
  } else if (word == "RESULT") {
    HandleResult(rest);
  } else if (const auto status = word == "STATUS" ? ParseStatus(rest) : std::nullopt) {
    HandleStatus(*status);
  } else {
    PrintLine("not understood from the service: \"" + line.substr(0, 80) + "\"");
  }
}

void Manager::HandleStatus(const Status& status) {
  PrintLine("status: " + DescribeStatus(status));
  // SERVICE_STOPPED is final, whatever a late thread of the service still reports.
  if (status_ && status_->state == kStopped) return;
  status_ = status;
  if (history_.size() < kMaxHistory) history_.push_back(status.state);
  for (const auto& peer : peers_) {
    if (!peer->waitsForStop) continue;
    peer->statesSeen.push_back(status.state);
    FinishIfStopped(*peer);
  }
}

// A client that requested the stop is served once it has both the result and SERVICE_STOPPED.
void Manager::FinishIfStopped(Peer& client) {
  const bool answered =
      std::none_of(deliveries_.begin(), deliveries_.end(),
                   [&](const Delivery& delivery) { return delivery.client == &client; });
  if (!answered || !status_ || status_->state != kStopped) return;
  FinishClient(client, 0, "states: " + Joined(client.statesSeen));
}

void Manager::HandleResult(const std::string& number) {
  if (deliveries_.empty() || !deliveries_.front().isSent) return PrintLine("unexpected result");
  const Delivery done = deliveries_.front();
  deliveries_.pop_front();
  PrintLine("control " + std::to_string(done.control.control) + ": result " + number);
  SendNext();
  if (done.client == nullptr) return;
  done.client->deadline.reset();
  if (done.client->waitsForStop && number == "0") {
    done.client->stream.Send("RESULT " + number);
    done.client->deadline = Clock::now() + kStopBound;
    return FinishIfStopped(*done.client);
  }
  FinishClient(*done.client, number == "0" ? 0 : 1, "RESULT " + number);
}

void Manager::HandleCommand(Peer& client, const std::string& line) {
  const std::vector<std::string> words = Words(line);
  const bool busy = client.isServed || client.deadline;
  if (busy) return;  // one command for each client
  if (words.size() == 1 && words[0] == "status") return ShowStatus(client);
  const auto control = ParseControl(words);
  if (!control) return FinishClient(client, 1, "not understood: " + line.substr(0, 80));
  if (const std::uint32_t error = Refusal(*control, status_, settings_)) {
    return FinishClient(client, 1, DescribeError(error));
  }
  client.waitsForStop = control->control == kControlStop;
  client.deadline = Clock::now() + kControlBound + kStopBound;
  Deliver(*control, &client);
}

void Manager::ShowStatus(Peer& client) {
  if (!status_) return FinishClient(client, 1, DescribeError(kErrorServiceNotActive));
  client.stream.Send(serviceName_ + ", process " + std::to_string(child_.Id()));
  client.stream.Send("status: " + DescribeStatus(*status_));
  for (const std::string& setting : settings_) client.stream.Send("power setting " + setting);
  FinishClient(client, 0, "states: " + Joined(history_));
}

void Manager::Deliver(Control control, Peer* client) {
  deliveries_.push_back({std::move(control), client, false, {}});
  SendNext();
}

void Manager::SendNext() {
  if (service_ == nullptr || deliveries_.empty() || deliveries_.front().isSent) return;
  Delivery& next = deliveries_.front();
  assert(next.client == nullptr || next.client->role == Role::kClient);
  next.isSent = true;
  next.deadline = Clock::now() + kControlBound;
  const std::string line = "CONTROL " + std::to_string(next.control.control) + " " +
                           std::to_string(next.control.eventType) + " " + next.control.data;
  PrintLine("sent " + line);
  service_->stream.Send(line);
}

void Manager::FinishClient(Peer& client, int exitCode, const std::string& words) {
  assert(client.role == Role::kClient);
  if (client.isServed) return;
  client.stream.Send(words);
  client.stream.Send("EXIT " + std::to_string(exitCode));
  client.isServed = true;
  client.waitsForStop = false;
  client.deadline.reset();
}

void Manager::ExpireDeadlines() {
  const Clock::time_point now = Clock::now();
  if (!deliveries_.empty() && deliveries_.front().isSent && deliveries_.front().deadline <= now) {
    Peer* client = std::exchange(deliveries_.front().client, nullptr);
    // The control stays the first: a late result of it must not be taken for another one's.
    deliveries_.front().deadline = now + std::chrono::hours(24);
    PrintLine("control not answered in time");
    if (client != nullptr) FinishClient(*client, 1, DescribeError(kErrorServiceRequestTimeout));
  }
  for (const auto& peer : peers_) {
    if (!peer->deadline || *peer->deadline > now) continue;
    FinishClient(*peer, 1, "not stopped in time; states: " + Joined(peer->statesSeen));
  }
}

// Ends everything that waits for the service.
void Manager::HandleServiceLoss() {
  assert(service_ != nullptr);
  PrintLine("the service's connection has ended");
  service_ = nullptr;
  const bool stopped = status_ && status_->state == kStopped;
  status_.reset();
  for (Delivery& delivery : std::exchange(deliveries_, {})) {
    if (delivery.client == nullptr || delivery.client->waitsForStop) continue;
    FinishClient(*delivery.client, 1, DescribeError(kErrorServiceNotActive));
  }
  for (const auto& peer : peers_) {
    if (!peer->waitsForStop) continue;
    FinishClient(*peer, stopped ? 0 : 1,
                 (stopped ? "states: " : "the process exited without SERVICE_STOPPED; states: ") +
                     Joined(peer->statesSeen));
  }
}

void Manager::RemoveClosed() {
  for (const auto& peer : peers_) {
    if (!peer->stream.Flush()) peer->isClosed = true;
    if (peer->isServed && !peer->stream.HasOutput()) peer->isClosed = true;
    if (!peer->isClosed) continue;
    for (Delivery& delivery : deliveries_) {
      if (delivery.client == peer.get()) delivery.client = nullptr;
    }
  }
  if (service_ != nullptr && service_->isClosed) {
    HandleServiceLoss();
    for (const auto& peer : peers_) (void)peer->stream.Flush();  // the manager may exit next
  }
  std::erase_if(peers_, [](const auto& peer) { return peer->isClosed; });
}

void Manager::StopBySignal() {
  signalfd_siginfo info;
  // Only emptied: both signals have the same effect.
  (void)!read(signals_.Get(), &info, sizeof info);
  const Control stop{kControlStop, 0, "-", 0, {}, true};
  if (stopRequested_ || Refusal(stop, status_, settings_) != 0) {
    PrintLine("kills the service's process");
    return child_.Kill();
  }
  stopRequested_ = true;
  PrintLine("stops the service");
  Deliver(stop, nullptr);
}

int Manager::FinishRun(int waitStatus) {
  // The process may have left lines in the socket.
  if (service_ != nullptr) {
    while (service_->stream.Read() && !service_->isClosed) {
      HandleLines(*service_);
      pollfd more{service_->stream.Get(), POLLIN, 0};
      if (poll(&more, 1, 0) <= 0) break;
    }
    HandleLines(*service_);
    service_->isClosed = true;
  }
  RemoveClosed();
  const int code = WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
  PrintLine("the service's process has ended with " + std::to_string(code));
  return code;
}

}  // namespace

int RunManager(const std::string& socketPath, const std::vector<std::string>& program) {
  return Manager().Run(socketPath, program);
}

}  // namespace scm
