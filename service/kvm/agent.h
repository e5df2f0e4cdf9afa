// The agent: a program that plays a viewer's keys and pointer into the console. The service starts
// it in the active console session for the time of a KVM session, restarts it when it ends, feeds
// it over three named pipes that the agent serves, and asks it to exit. Each message opens, writes
// and closes a connection of its own; a message that cannot be delivered is dropped without a log
// line.
#pragma once

#include <cstdint>

#include "platform/user_session.h"

namespace stewardry {

inline constexpr char kAgentPipe[] = "\\\\.\\pipe\\KVMAgentPipe";              // "Terminate"
inline constexpr char kAgentKeyboardPipe[] = "\\\\.\\pipe\\KVMAgentKeyboard";  // keyInfo
inline constexpr char kAgentMousePipe[] = "\\\\.\\pipe\\KVMAgentMouse";        // mouseInfo

// Starts the agent beside the service's executable in the active console session, with a copy of
// winlogon.exe's token, on the desktop "Winsta0\Default". One attempt. Returns true if the agent
// counts as started. That includes a session that cannot take it yet (ERROR_PIPE_NOT_CONNECTED):
// the watch thread tries again. The session's set-up, or the watch thread.
bool LaunchKVMAgent();

// The session's watch thread: starts the agent again, in the session that is then at the console,
// within about two seconds of its end, until gKvmAgentThread is asked to stop. Returns 0. The
// parameter is not used.
std::uint32_t WatchKVMAgent(void* parameter);

// Returns true while the process of that id runs; false for one that cannot be opened.
bool IsProcessRunning(std::uint32_t processId);

// Turns SeTcbPrivilege on in the service's own token. Returns false after a logged failure.
bool EnableTcbPrivilege();

// Stores a primary token of winlogon.exe's user, moved into session `sessionId`. Returns false on
// failure, with no token stored. Getsessionusertokenwin returns false for a null pointer.
bool Getsessionusertokenwin(platform::Token* token, std::uint32_t sessionId);
bool GetWinlogonToken(platform::Token* token, std::uint32_t sessionId);

// Returns the id of the last winlogon.exe in the process list that runs as the service's own user;
// 0 if there is none. Any of them will do, since the token is moved into the wanted session. A
// program of that name that a user has started would hand the session to that user.
std::uint32_t FindWinlogonPid();

// Sends one message to a pipe of the agent: opens, writes, closes. `pipe` is one of the names
// above. The pipe's server must be the agent that was started or another process of the service's
// own user. A few other servers are disconnected, and then the message is dropped. Never waits for
// a free instance, and waits a second at most for a server that does not read. Any thread.
void WriteToAgentPipe(const char* pipe, const void* message, std::uint32_t length);

// Sends the agent the request to exit.
void TerminateAgentOverPipe();

}  // namespace stewardry
