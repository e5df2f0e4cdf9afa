// The agent: a program of its own that plays a viewer's keys and pointer into the console. The
// service starts it in the active console session for the time of a KVM session, keeps it running,
// feeds it over three named pipes that it serves, and tells it to go. Each message opens, writes
// and closes a connection of its own; one that can't be delivered is lost without a word.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/user_session.h"
#include "service/kvm/session_threads.h"

namespace stewardry {

inline constexpr char kAgentPipe[] = "\\\\.\\pipe\\KVMAgentPipe";              // "Terminate"
inline constexpr char kAgentKeyboardPipe[] = "\\\\.\\pipe\\KVMAgentKeyboard";  // keyInfo
inline constexpr char kAgentMousePipe[] = "\\\\.\\pipe\\KVMAgentMouse";        // mouseInfo

// The id of the session's agent; a failed launch leaves it, and the session's end takes it back,
// since the system may give the number to any other process once gKvmAgentProcess is closed.
// Written by the launch and the end, read by the watch thread, and by the threads that write to the
// agent: relaxed, a message that meets another server than this one finds out who that is.
extern std::atomic<std::uint32_t> gKvmAgentPid;
// The agent last started; null if none was. One thread at a time touches it: the thread that builds
// the session, then the watch thread, then, once that has gone, the thread that ends the session.
extern platform::ProcessLifetime<platform::Process> gKvmAgentProcess;

// Starts the agent beside the service's executable in the active console session, with a copy of
// winlogon.exe's token, on the desktop "Winsta0\Default". One attempt. True if the agent counts as
// started: also when the session can't take it yet (ERROR_PIPE_NOT_CONNECTED), since the watch
// thread tries again. The thread that builds a session, or the watch thread.
bool LaunchKVMAgent();

// The session's watch thread: starts the agent again within about two seconds of its end, in
// whatever session is then at the console, until gStopKVMAgentThread is set. Gives 0. The parameter
// is not used.
std::uint32_t WatchKVMAgent(void* parameter);

// True while the process of that id runs; one that can't be opened counts as not running.
bool IsProcessRunning(std::uint32_t processId);

// Turns SeTcbPrivilege on in the service's own token. False after a logged failure.
bool EnableTcbPrivilege();

// A primary token of winlogon.exe's user, moved into session `sessionId`. False on failure, with
// *token empty; a null pointer is refused.
bool Getsessionusertokenwin(platform::Token* token, std::uint32_t sessionId);
bool GetWinlogonToken(platform::Token* token, std::uint32_t sessionId);

// The id of the last winlogon.exe of the process list that runs as the service's own user; 0 if
// there is none. Which one doesn't matter, since the token is moved into the wanted session; a
// program of that name that a user has started would hand the session to that user.
std::uint32_t FindWinlogonPid();

// One message to a pipe of the agent: opens, writes, closes. `pipe` is one of the names above. The
// pipe must be served by the agent that was started or by another process of the service's own
// user: a few others are hung up on, and then the message is lost. It never waits for a free
// instance, and a second at most for a server that doesn't read. Any thread.
void WriteToAgentPipe(const char* pipe, const void* message, std::uint32_t length);

// Tells the agent to end itself.
void TerminateAgentOverPipe();

}  // namespace stewardry
