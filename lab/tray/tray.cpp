// tray, the stand-in of the tray application: it serves the service's tray pipe, sends all eleven
// questions and prints the answers as a table. With --ui it also sends the question of the tray's
// window.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "lab/local/served_pipe.h"

namespace {

struct Question {
  int number;
  const char* about;
  bool isAddress;
};
constexpr Question kTrayQuestions[] = {
    {1, "firmware answers", false}, {2, "provisioning", false},    {3, "firmware version", false},
    {4, "KVM session", false},      {5, "service version", false}, {6, "upgrade", false},
    {7, "service", false},          {8, "address", true},          {9, "subnet mask", true},
    {10, "gateway", true},          {11, "DNS server", true},
};
constexpr Question kUiQuestions[] = {{20, "WLAN firmware", false}};

// Returns "192.168.1.5" for "501a8c0", the four bytes with the first one lowest; empty for text
// that is no such value.
std::string Dotted(const std::string& hex) {
  std::uint32_t value = 0;
  const char* end = hex.data() + hex.size();
  const auto read = std::from_chars(hex.data(), end, value, 16);
  if (read.ec != std::errc() || read.ptr != end) return {};
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", value & 0xFF, value >> 8 & 0xFF,
                value >> 16 & 0xFF, value >> 24);
  return text;
}

void Print(const Question& question, const std::string& answer) {
  std::printf("%2d  %-16s  %s", question.number, question.about, answer.c_str());
  if (question.isAddress) std::printf("  %s", Dotted(answer).c_str());
  std::printf("\n");
  std::fflush(stdout);
}

struct Pipe {
  const char* name;
  std::span<const Question> questions;
  lab::ServedPipe pipe;

  // Both return false after a message on standard error.
  bool Open() {
    std::string problem;
    return pipe.Open(name, &problem) || Report(problem);
  }
  bool AskAll(lab::Deadline deadline) {
    std::string problem, answer;
    for (const Question& question : questions) {
      if (!pipe.Ask(std::to_string(question.number), deadline, &answer, &problem))
        return Report(problem);
      Print(question, answer);
    }
    return true;
  }
  bool Report(const std::string& problem) const {
    std::fprintf(stderr, "tray: %s: %s\n", name, problem.c_str());
    return false;
  }
};

// Opens both pipes before the first question: the service checks for each only every two seconds.
int Run(bool ui, long seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  Pipe tray{"TrayPipe", kTrayQuestions, {}}, window{"ServiceToTrayUI", kUiQuestions, {}};
  if (!tray.Open() || (ui && !window.Open())) return 1;
  return tray.AskAll(deadline) && (!ui || window.AskAll(deadline)) ? 0 : 1;
}

int Usage() {
  std::fprintf(stderr,
               "usage: tray [--ui] [--seconds N]\n"
               "queries what a tray shows, and with --ui what its window shows; gives up after N\n"
               "seconds (30)\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  lab::Words words(argv + 1, argv + argc);
  long seconds = 30;
  if (!lab::TakeSeconds(&words, &seconds)) return Usage();
  const bool ui = words.size() == 1 && words[0] == "--ui";
  if (!words.empty() && !ui) return Usage();
  return Run(ui, seconds);
}
