// The exchange over a pipe.
#include "service/actions/pipe_exchange.h"

#include <array>
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
constexpr std::size_t kAnswerSize = 128;    // with CR LF, and a terminator that isn't sent
constexpr char kAnswerEnd[] = "\r\n";

platform::Pipe Connect(const char* name) {
  for (;;) {
    platform::Pipe pipe = platform::OpenPipe(name, platform::kShareWrite);
    if (pipe) return pipe;
    platform::Sleep(kRetryMilliseconds);
  }
}

// The number that a question asks for. The whole of a long question is read before it is answered:
// an asker that is still writing would meet a pipe that has hung up on it, and lose its answer.
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
  // An asker that has gone misses its answer, and nobody else is concerned.
  (void)platform::WriteFile(pipe, msg.data(), static_cast<std::uint32_t>(length),
                            platform::kInfinite, &written);
}

// Leaves the connection to the process, which closes it at its end.
void LeaveOpen(platform::Pipe pipe) {
  platform::ProcessLifetime<platform::Pipe> neverClosed;
  *neverClosed = std::move(pipe);
}

}  // namespace

std::uint32_t ServeQuestions(const QuestionPipe& questions) {
  for (;;) {
    platform::Pipe pipe = Connect(questions.name);
    const long number = ReadQuestion(pipe);
    const platform::HeapBlock block = platform::HeapAlloc(kAnswerTextSize);
    if (!block) return LeaveOpen(std::move(pipe)), kNoAnswerBlock;
    const AnswerText text(static_cast<char*>(block.Raw()), kAnswerTextSize);
    std::memset(text.data(), 0, text.size());
    WriteText(questions.commands, number, text);
    SendAnswer(pipe, text.data());
  }
}

}  // namespace stewardry
