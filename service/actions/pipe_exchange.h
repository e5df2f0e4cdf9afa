// The questions of programs in the user's session: such a program creates a named pipe, the service
// connects to it, reads one question, writes one answer and disconnects, over and over. The pipes
// differ in their name and their table of commands.
//
// On the wire: a question is a decimal number as text, ended by a zero byte. An answer is a text
// and CR LF, without a zero byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace stewardry {

constexpr std::size_t kAnswerTextSize = 1024;  // with its terminator
using AnswerText = std::span<char, kAnswerTextSize>;

struct PipeCommand {
  long number;
  void (*answer)(AnswerText text);  // writes a zero-terminated text
};

struct QuestionPipe {
  const char* name;
  std::span<const PipeCommand> commands;
};

constexpr std::uint32_t kNoAnswerBlock = 774;  // the exit code of a thread without a heap block

// Serves the questions of one pipe for the life of the process; a thread's body. Until the pipe
// exists it tries again every two seconds, without a line. Returns kNoAnswerBlock if the process
// heap has no block for an answer; that question then stays unanswered and its connection open.
//
// The first 99 characters of a question count; the rest up to its zero byte is read and dropped. A
// question that its sender breaks off counts as far as it came. An answer is cut at 125 characters.
// A number without a command, or a text that is no number, gets "Please provide proper input".
std::uint32_t ServeQuestions(const QuestionPipe& questions);

}  // namespace stewardry
