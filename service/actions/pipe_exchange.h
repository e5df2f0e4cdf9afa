// How programs in the user's session ask the service: they create a named pipe, the service
// connects to it, reads one question, gives one answer and hangs up, over and over. What differs
// between the pipes is their name and their table of commands.
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

// A thread's body: serves the questions of one pipe for as long as the process lives. While nobody
// has created the pipe it tries again every two seconds, silently. Returns kNoAnswerBlock when the
// process heap has no block for an answer; that question's connection then stays open, unanswered.
//
// Of a question the first 99 characters count, and the rest up to its zero byte is read and
// dropped; a question that the asker breaks off counts as far as it came. An answer is cut at 125
// characters. A number without a command, and what is no number, gets "Please provide proper
// input".
std::uint32_t ServeQuestions(const QuestionPipe& questions);

}  // namespace stewardry
