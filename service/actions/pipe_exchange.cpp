#include "service/actions/pipe_exchange.h"

#include <array>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/event.h"
#include "platform/heap.h"
#include "platform/pipe.h"
#include "platform/thread.h"
#include "service/diagnostics/format.h"

namespace stewardry {

namespace {

constexpr std::uint32_t kRetryMilliseconds = 2000;
constexpr std::size_t kQuestionSize = 100;  // with its zero byte
constexpr std::size_t kAnswerSize = 128;    // with CR LF, and a terminator that is not sent
constexpr char kAnswerEnd[] = "\r\n";

platform::Pipe ConnectToPipe(const char* name) {
  for (;;) {
    platform::Pipe pipe = platform::OpenPipe(name, platform::kShareWrite);
    if (pipe) return pipe;
    platform::Sleep(kRetryMilliseconds);
  }
}

// Returns the number in a question. The whole of a long question is read before it is answered: a
// program that is still writing to a disconnected pipe would lose its answer.
long ReadQuestion(const platform::Pipe& pipe) {
  std::array<char, kQuestionSize> buffer{};
  std::uint32_t read = 0;
  std::size_t size = 0;
  for (char next; platform::ReadFile(pipe, &next, 1, &read) && read != 0 && next != 0;)
    if (size < kQuestionSize - 1) buffer[size++] = next;
  return std::strtol(buffer.data(), nullptr, 10);
}

void WriteText(std::span<const PipeCommand> commands, long number, AnswerText text) {
  for (const PipeCommand& command : commands)
    if (command.number == number) return command.answer(text);
  FormatTo(text.data(), text.size(), "Please provide proper input");
}

void SendAnswer(const platform::Pipe& pipe, const char* text) {
  std::array<char, kAnswerSize> msg{};
  std::size_t length = FormatTo(msg.data(), msg.size() - std::strlen(kAnswerEnd), "%s", text);
  for (const char* end = kAnswerEnd; *end != 0; ++end) msg[length++] = *end;
  std::uint32_t written = 0;
  // A failure concerns only the program that has closed its pipe.
  (void)platform::WriteFile(pipe, msg.data(), static_cast<std::uint32_t>(length),
                            platform::kInfinite, &written);
}

// Keeps the connection open until the process ends.
void LeaveOpen(platform::Pipe pipe) {
  platform::ProcessLifetime<platform::Pipe> neverClosed;
  *neverClosed = std::move(pipe);
}

}  // namespace

std::uint32_t ServeQuestions(const QuestionPipe& questions) {
  assert(questions.name != nullptr);
  for (;;) {
    platform::Pipe pipe = ConnectToPipe(questions.name);
    const long number = ReadQuestion(pipe);
    const platform::HeapBlock block = platform::HeapAlloc(kAnswerTextSize);
    if (!block) {
      LeaveOpen(std::move(pipe));
      return kNoAnswerBlock;
    }
    const AnswerText text(static_cast<char*>(block.Raw()), kAnswerTextSize);
    std::memset(text.data(), 0, text.size());
    WriteText(questions.commands, number, text);
    SendAnswer(pipe, text.data());
  }
}

}  // namespace stewardry
