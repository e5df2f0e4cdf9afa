// The selector: a single-threaded event loop over a list of handlers. A handler is a socket, or
// only a deadline, with an interest mask and a callback. All sockets of a selector share one
// platform event, so a wait always involves two handles, whatever the number of sockets.
//
// Invariants:
// 1. One thread at a time runs the selector. While it runs, only that thread (the run thread)
//    accesses the handler list, the handlers and the sockets' selection. Selector_Post,
//    Selector_Wakeup, Selector_IsRunThread and the two stop calls alone are open to other threads.
// 2. A callback called with SELECTOR_REMOVE or SELECTOR_DESTROY owns the handler and its socket
//    from then on; the selector never accesses the handler after that call.
// 3. A handler's socket is taken out of the shared event before that call, so no later wait can
//    report to a handler that no longer exists.
#pragma once

#include <cstdint>

#include "platform/socket.h"
#include "sock/result.h"
#include "sock/sock.h"

namespace stewardry {

// Event masks. A handler's eventMask may hold READ, WRITE and EXCEPTION; the callback's mask may
// hold all but EXCEPTION.
constexpr std::uint32_t SELECTOR_ADD = 1;        // the handler has been added
constexpr std::uint32_t SELECTOR_READ = 2;       // data, a connection, a close, a finished connect
constexpr std::uint32_t SELECTOR_WRITE = 4;      // the socket can be written to
constexpr std::uint32_t SELECTOR_EXCEPTION = 8;  // out-of-band data: removes the handler
constexpr std::uint32_t SELECTOR_TIMEOUT = 16;   // timeoutAt has passed
constexpr std::uint32_t SELECTOR_REMOVE = 32;    // the handler has been taken out of the list
constexpr std::uint32_t SELECTOR_DESTROY = 64;   // the selector is being destroyed
constexpr std::uint32_t SELECTOR_READ_CLOSE = 256;  // data and close in one poll; comes with READ

struct SelectorState;

// The caller's handle on a selector. Its state is null before Selector_Init and after
// Selector_Destroy.
struct Selector {
  SelectorState* state = nullptr;
};

struct Handler;

// A callback that another thread posts to the run thread. The record lies within its message, which
// the poster keeps alive until `drop` of Selector_Post. The selector does not interpret a message.
struct PostedCall {
  PostedCall* next;  // `next` and `prev` are owned by the selector
  PostedCall* prev;
  void (*callback)(void* callbackData, void* message);
  void* callbackData;
  void* message;
};
static_assert(sizeof(PostedCall) == 40);

// Called on the run thread with the events in `mask` and the time in microseconds of PAL_Time.
// Returns non-zero to keep the handler, zero to have it removed: it is then called once more, with
// SELECTOR_REMOVE. The result of calls with ADD, REMOVE or DESTROY is ignored.
using SelectorCallback = std::uint8_t (*)(Selector* selector, Handler* handler, std::uint32_t mask,
                                          std::uint64_t currentTimeUsec);

// Must be zeroed as a whole before use. In one selector at a time. A callback may change eventMask
// and timeoutAt.
struct Handler {
  Handler* next;  // `next`, `prev` and `selection` are owned by the selector
  Handler* prev;
  Sock sock;                // kInvalidSock for a handler that has only a deadline
  std::uint32_t eventMask;  // read before every wait
  std::uint64_t timeoutAt;  // microseconds of PAL_Time, 0 for none; the callback clears or moves it
  SelectorCallback callback;
  platform::SocketSelection selection;
};

// Creates a selector with an empty list. Returns RESULT_OK, or RESULT_FAILED with a null state if
// memory or one of the two events could not be had. Any thread.
Result Selector_Init(Selector* selector);

// Calls every handler's callback with SELECTOR_DESTROY and time 0, drops the messages of posted
// calls without calling them, and frees the selector. Requires that it is not running and that no
// thread posts to it any more. Does nothing if the state is null.
void Selector_Destroy(Selector* selector);

// Appends the handler and calls its callback with SELECTOR_ADD. Requires a callback. Returns
// RESULT_OK, RESULT_ALREADY_EXISTS if the handler is in the list, or RESULT_FAILED if the state is
// null. Run thread, or any one thread between two runs.
Result Selector_AddHandler(Selector* selector, Handler* handler);

// Takes the handler out of the list and calls its callback with SELECTOR_REMOVE and time 0. Returns
// RESULT_OK, or RESULT_NOT_FOUND if it is not in the list. Same threads as Selector_AddHandler.
Result Selector_RemoveHandler(Selector* selector, Handler* handler);

// Removes every handler as Selector_RemoveHandler does. Returns RESULT_OK. Same threads.
Result Selector_RemoveAllHandlers(Selector* selector);

// Takes the handler out of the list without a callback: the caller owns it and its socket from then
// on. Requires that it is in the list. Same threads.
void Selector_DetachHandler(Selector* selector, Handler* handler);

// Returns RESULT_OK if the handler is in the list, else RESULT_NOT_FOUND. Same threads.
Result Selector_ContainsHandler(const Selector* selector, const Handler* handler);

// Decides whether a run goes on with an empty handler list; without this call it fails. Requires a
// selector that Selector_Init created. Same threads.
void Selector_AllowEmptyList(Selector* selector, bool allow);

// Waits for events and serves them on the calling thread. Returns RESULT_TIME_OUT after
// `timeoutUsec` microseconds (0: no bound), RESULT_OK after a stop, RESULT_FAILED for an empty list
// or a null state, or the status of the step that failed, which the report function receives. With
// `noReadsMode` no handler is selected for reads. Handlers stay in the list between two runs.
Result Selector_Run(Selector* selector, std::uint64_t timeoutUsec, bool noReadsMode);

// Returns true on the thread that is in Selector_Run, or was last; false if the state is null.
bool Selector_IsRunThread(const Selector* selector);

// From another thread: ends the current wait. From the run thread: with `repeat`, requests another
// pass without waiting. Requires a selector that Selector_Init created. Any thread.
void Selector_Wakeup(Selector* selector, bool repeat);

// End the run, or the run in no-reads mode, at the end of its turn. A stop that precedes the run
// has no effect on it. Require a selector that Selector_Init created. Any thread.
void Selector_StopRunning(Selector* selector);
void Selector_StopRunningNoReads(Selector* selector);

// Lists a call for the head of the run thread's next pass, and wakes that thread. `drop` releases
// the message, after the callback or when the selector is destroyed before that; it must be the
// same function for all calls of a selector. Requires a callback and that the selector is not being
// destroyed. Any thread.
void Selector_Post(Selector* selector, PostedCall* call, void (*drop)(void* message));

// What a run reports about the step that failed. The values are event numbers of the library log.
enum class SelectorEvent : std::uint32_t {
  kInitialTime = 20053,
  kSetSockEvents = 20054,
  kEmptyList = 20055,
  kWait = 20056,
  kTimeInPass = 20057,
  kGetSockEvents = 20058,
};

// Receives a report on the run thread. `detail` is the failed step's status or platform error;
// `handler` is null unless the step belongs to one.
using SelectorReport = void (*)(SelectorEvent event, const Selector* selector, std::uint32_t detail,
                                const Handler* handler);

// Sets the report function of all selectors of the process; null, the initial value, drops reports.
// Must precede every run.
void Selector_SetReport(SelectorReport report);

}  // namespace stewardry
