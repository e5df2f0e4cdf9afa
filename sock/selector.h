// The selector: a single-threaded event loop over a list of handlers. A handler is a socket, or
// only a deadline, with an interest mask and a callback. All sockets of a selector share one
// platform event, so a wait always involves two handles, whatever the number of sockets.
//
// Invariants:
// 1. One thread at a time runs the selector, and only it touches the handler list, the handlers
//    and the sockets' selection. Selector_Post, Selector_Wakeup and the stop calls alone are open
//    to others.
// 2. A callback called with SELECTOR_REMOVE or SELECTOR_DESTROY owns the handler and its socket
//    from then on; the selector never touches the handler after that call.
// 3. A handler's socket is taken out of the shared event before that call, so no later wait can
//    report to a handler that is gone.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/socket.h"
#include "sock/result.h"
#include "sock/sock.h"

namespace stewardry {

// Event masks. READ, WRITE and EXCEPTION are what a handler may ask for.
constexpr std::uint32_t SELECTOR_ADD = 1;
constexpr std::uint32_t SELECTOR_READ = 2;  // data, a knock, a close or a finished connect
constexpr std::uint32_t SELECTOR_WRITE = 4;
constexpr std::uint32_t SELECTOR_EXCEPTION = 8;  // out-of-band data: removes the handler
constexpr std::uint32_t SELECTOR_TIMEOUT = 16;   // timeoutAt has passed
constexpr std::uint32_t SELECTOR_REMOVE = 32;
constexpr std::uint32_t SELECTOR_DESTROY = 64;
constexpr std::uint32_t SELECTOR_READ_CLOSE = 256;  // data and close in one poll, with READ

struct SelectorState;

// The caller's handle on a selector.
struct Selector {
  SelectorState* state = nullptr;
};

struct Handler;

// A callback that another thread wants to be run on the run thread. It lies where its message does,
// which lives as long as the call is listed. What a message is, only the poster knows.
struct PostedCall {
  PostedCall* next;
  PostedCall* prev;
  void (*callback)(void* callbackData, void* message);
  void* callbackData;
  void* message;
};
static_assert(sizeof(PostedCall) == 40);

// Non-zero keeps the handler, zero asks for its removal; counts only in calls from a pass.
using SelectorCallback = std::uint8_t (*)(Selector* selector, Handler* handler, std::uint32_t mask,
                                          std::uint64_t currentTimeUsec);

// Zero it whole before use. Linked into one selector at a time.
struct Handler {
  Handler* next;  // owned by the selector, as `prev` and `selection` are
  Handler* prev;
  Sock sock;                // or the invalid socket for a handler that has only a deadline
  std::uint32_t eventMask;  // read afresh before every wait
  std::uint64_t timeoutAt;  // microseconds of PAL_Time; 0 means none; the callback clears it
  SelectorCallback callback;
  platform::SocketSelection selection;
};

// Makes a selector with an empty list. 0, or 1 with nothing left behind.
Result Selector_Init(Selector* selector);

// Calls every handler's callback with SELECTOR_DESTROY and time 0, gives the messages of posted
// calls back, and frees the selector. It must not be running, and nobody may post any more. Does
// nothing for one that was never made.
void Selector_Destroy(Selector* selector);

// Appends the handler and calls its callback with SELECTOR_ADD. 0, 1, or 11 if it is in already.
Result Selector_AddHandler(Selector* selector, Handler* handler);

// Takes the handler out and calls its callback with SELECTOR_REMOVE and time 0. 0 or 6.
Result Selector_RemoveHandler(Selector* selector, Handler* handler);

// The same for every handler. 0.
Result Selector_RemoveAllHandlers(Selector* selector);

// Takes the handler out without a callback: the caller keeps and disposes of it.
void Selector_DetachHandler(Selector* selector, Handler* handler);

// 0 if the handler is in the list, else 6.
Result Selector_ContainsHandler(const Selector* selector, const Handler* handler);

// An empty handler list no longer ends a run.
void Selector_AllowEmptyList(Selector* selector, bool allow);

// Waits for events and serves them until `timeoutUsec` microseconds have passed (1004; 0 for no
// bound), a stop was asked for (0), or a failure (1, or the failing step's status). With
// `noReadsMode` no handler is selected for reads. Handlers stay in the list between two runs.
Result Selector_Run(Selector* selector, std::uint64_t timeoutUsec, bool noReadsMode);

// True when the calling thread is the one in Selector_Run. False for a selector never made.
bool Selector_IsRunThread(const Selector* selector);

// From another thread: ends the current wait. From the run thread: with `repeat`, another pass
// without waiting.
void Selector_Wakeup(Selector* selector, bool repeat);

// End the run, or the run in no-reads mode, at the end of its turn. Any thread. A stop asked for
// before the run has begun is lost.
void Selector_StopRunning(Selector* selector);
void Selector_StopRunningNoReads(Selector* selector);

// Lists a call, which the run thread takes at the head of its next pass, and wakes that thread.
// `drop` gives the message back, once the callback has run or when the selector is destroyed
// without that; it is the same for all calls of a selector. Any thread; not while the selector is
// destroyed.
void Selector_Post(Selector* selector, PostedCall* call, void (*drop)(void* message));

// The library log's numbers for what the selector has to report.
enum class SelectorEvent : std::uint32_t {
  kInitialTime = 20053,
  kSetSockEvents = 20054,
  kEmptyList = 20055,
  kWait = 20056,
  kTimeInPass = 20057,
  kGetSockEvents = 20058,
};

// Where those reports go: `detail` is the status or platform error, `handler` may be null. Null,
// as in the service, drops them. Set it before any selector runs.
using SelectorReport = void (*)(SelectorEvent event, const Selector* selector, std::uint32_t detail,
                                const Handler* handler);
extern SelectorReport gSelectorReport;

}  // namespace stewardry
