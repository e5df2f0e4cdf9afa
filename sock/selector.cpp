#include "sock/selector.h"

#include <array>
#include <atomic>
#include <cassert>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/error.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "sock/clock.h"
#include "sock/list_links.h"

namespace stewardry {

// The posted calls that the run thread has not taken yet.
struct PendingCalls {
  PostedCall* head = nullptr;
  PostedCall* tail = nullptr;
  // Written by the thread that holds the list. The run thread reads it without holding the list:
  // relaxed, since a post that it misses signals wakeEvent afterwards and so ends the next wait.
  std::atomic<std::uint32_t> count{0};
  // Written by each post, always the same value. Relaxed: the list's guard orders it before its
  // use.
  std::atomic<void (*)(void*)> drop{nullptr};
};

struct SelectorState {
  // The list and these flags belong to the run thread.
  Handler* handlerHead = nullptr;
  Handler* handlerTail = nullptr;
  bool repeatPass = false;
  bool allowEmptyList = false;
  platform::SocketEvent socketEvent;
  platform::WakeEvent wakeEvent;
  // Both written by the run thread at the ends of a run, read by any thread. Relaxed: a thread only
  // compares the number with its own, and the flag serves the asserts alone.
  std::atomic<std::uint32_t> runThreadId{0};
  std::atomic<bool> isRunning{false};
  // Cleared with release by any thread, which then signals wakeEvent; loaded with acquire by the
  // run thread after each turn.
  std::atomic<bool> keepRunning{false};
  std::atomic<bool> keepRunningNoReads{false};
  PendingCalls pending;
  // Points at `pending` while that is free, and is null while a thread holds it. Taken with acquire
  // and released with release, so that each holder sees what the one before it did.
  std::atomic<PendingCalls*> pendingList{&pending};
};

namespace {

constexpr std::uint64_t kNever = ~std::uint64_t{0};

// Set before any selector runs, so the start of a run's thread orders it.
SelectorReport gReportFunction = nullptr;

// Reports a failed step and returns its status.
Result Fail(SelectorEvent event, const Selector* selector, std::uint32_t detail = 0,
            const Handler* handler = nullptr, Result result = RESULT_FAILED) {
  if (gReportFunction != nullptr) gReportFunction(event, selector, detail, handler);
  return result;
}

// True on the only thread that may access the handlers: the run thread of a run, or between two
// runs the caller, which must be the only one.
[[maybe_unused]] bool OwnsHandlers(const Selector* selector) {
  return !selector->state->isRunning.load(std::memory_order_relaxed) ||
         Selector_IsRunThread(selector);
}

struct MaskRow {
  std::uint32_t mask;
  std::uint32_t events;
};
constexpr MaskRow kWantedEvents[] = {
    {SELECTOR_READ, platform::kFdRead | platform::kFdAccept | platform::kFdClose},
    {SELECTOR_WRITE, platform::kFdWrite | platform::kFdConnect},
    {SELECTOR_EXCEPTION, platform::kFdOob},
};
constexpr MaskRow kReportedMasks[] = {
    {SELECTOR_READ,
     platform::kFdAccept | platform::kFdRead | platform::kFdClose | platform::kFdConnect},
    {SELECTOR_WRITE, platform::kFdWrite},
    {SELECTOR_EXCEPTION, platform::kFdOob},
};

// The network events for each set of the three masks. A turn looks this up for every handler, so it
// is one load.
constexpr std::uint32_t kWantedMasks = SELECTOR_READ | SELECTOR_WRITE | SELECTOR_EXCEPTION;
static_assert(kWantedMasks == 14, "adjacent bits, so that half of a set is an index");
constexpr auto kEventsOfMask = [] {
  std::array<std::uint32_t, kWantedMasks / 2 + 1> events{};
  for (std::uint32_t mask = 0; mask <= kWantedMasks; mask += 2)
    for (const MaskRow& row : kWantedEvents)
      if ((mask & row.mask) != 0) events[mask / 2] |= row.events;
  return events;
}();

Result _SetSockEvents(SelectorState* state, Handler* handler, std::uint32_t mask,
                      bool noReadsMode) {
  if (noReadsMode) mask &= ~SELECTOR_READ;
  const std::uint32_t events = kEventsOfMask[(mask & kWantedMasks) / 2];
  if (!platform::MustSelect(handler->selection, events)) return RESULT_OK;
  const int status =
      platform::WSAEventSelect(handler->sock, state->socketEvent, &handler->selection, events);
  return status == 0 ? RESULT_OK : RESULT_FAILED;
}

Result _GetSockEvents(SelectorState* state, Handler* handler, std::uint32_t* mask) {
  *mask = 0;
  std::uint32_t events = 0;
  if (platform::WSAEnumNetworkEvents(handler->sock, state->socketEvent, &handler->selection,
                                     &events) != 0)
    return RESULT_FAILED;
  constexpr std::uint32_t readAndClose = platform::kFdRead | platform::kFdClose;
  if ((events & readAndClose) == readAndClose) *mask |= SELECTOR_READ_CLOSE;
  for (const MaskRow& row : kReportedMasks)
    if ((events & row.events) != 0) *mask |= row.mask;
  return RESULT_OK;
}

// Takes the socket out of the shared event. A failure is ignored: the socket is about to be closed.
void ClearSockEvents(SelectorState* state, Handler* handler) {
  if (handler->sock != kInvalidSock) (void)_SetSockEvents(state, handler, 0, false);
}

void Unlink(SelectorState* state, Handler* handler) {
  DList_Remove(&state->handlerHead, &state->handlerTail, handler);
}

PendingCalls* TakePendingList(SelectorState* state) {
  PendingCalls* list;
  while ((list = state->pendingList.exchange(nullptr, std::memory_order_acquire)) == nullptr)
    platform::Sleep(0);  // it is held for a few instructions
  return list;
}

void ReleasePendingList(SelectorState* state, PendingCalls* list) {
  assert(list == &state->pending);
  state->pendingList.store(list, std::memory_order_release);
}

// Empties the list and returns its calls in the order of their posts.
PostedCall* TakePosted(SelectorState* state) {
  PendingCalls* list = TakePendingList(state);
  PostedCall* first = list->head;
  list->head = list->tail = nullptr;
  list->count.store(0, std::memory_order_relaxed);
  ReleasePendingList(state, list);
  return first;
}

// Drops the messages of `call` and its successors, with `isCalled` after their callbacks. A call
// lies within its message, so it is not accessed after that.
void FinishPosted(SelectorState* state, PostedCall* call, bool isCalled) {
  while (call != nullptr) {
    PostedCall* next = call->next;
    void* message = call->message;
    if (isCalled) call->callback(call->callbackData, message);
    state->pending.drop.load(std::memory_order_relaxed)(message);
    call = next;
  }
}

void RunPosted(SelectorState* state) {
  if (state->pending.count.load(std::memory_order_relaxed) == 0) return;
  FinishPosted(state, TakePosted(state), true);
}

struct Run {
  Selector* selector;
  SelectorState* state;
  bool noReadsMode;
  std::uint64_t timeoutSelectorAt;
  std::uint64_t breakAt;  // when the coming wait must end
  bool hasDeadlines;      // a handler of this turn has a deadline
};

// Selects every socket for its handler's current interest, and finds the earliest deadline.
Result PrepareWait(Run* run, std::uint64_t now) {
  run->breakAt = run->timeoutSelectorAt != 0 ? run->timeoutSelectorAt : kNever;
  run->hasDeadlines = false;
  for (Handler* handler = run->state->handlerHead; handler != nullptr; handler = handler->next) {
    if (handler->sock != kInvalidSock) {
      const Result result =
          _SetSockEvents(run->state, handler, handler->eventMask, run->noReadsMode);
      if (result != RESULT_OK)
        return Fail(SelectorEvent::kSetSockEvents, run->selector, result, handler, result);
    }
    if (handler->timeoutAt == 0) continue;
    run->hasDeadlines = true;
    const std::uint64_t due = handler->timeoutAt <= now ? now : handler->timeoutAt;
    if (due < run->breakAt) run->breakAt = due;
  }
  if (run->state->handlerHead == nullptr && !run->state->allowEmptyList)
    return Fail(SelectorEvent::kEmptyList, run->selector);
  return RESULT_OK;
}

std::uint32_t WaitMilliseconds(std::uint64_t breakAt, std::uint64_t now) {
  assert(breakAt >= now);
  if (breakAt == kNever) return platform::kInfinite;
  const std::uint64_t wait = (breakAt - now) / 1000;
  return static_cast<std::uint32_t>(wait < platform::kInfinite ? wait : platform::kInfinite - 1);
}

// Removes a handler whose callback returned zero or that received out-of-band data.
Result RemoveInPass(Run* run, Handler* handler) {
  Unlink(run->state, handler);
  std::uint64_t now;
  if (!PAL_Time(&now)) return Fail(SelectorEvent::kTimeInPass, run->selector);
  ClearSockEvents(run->state, handler);
  (void)handler->callback(run->selector, handler, SELECTOR_REMOVE, now);  // nothing is left to keep
  return RESULT_OK;
}

// Calls one handler with its events. *following is read again after the callback, which may have
// unlinked or appended a handler there.
Result ServeHandler(Run* run, Handler* handler, Handler** following) {
  std::uint32_t mask = 0;
  const bool mayHaveEvents =
      handler->sock != kInvalidSock && platform::MayHaveEvents(handler->selection);
  if (!mayHaveEvents && handler->timeoutAt == 0) return RESULT_OK;
  std::uint64_t now;
  if (!PAL_Time(&now)) return Fail(SelectorEvent::kTimeInPass, run->selector);
  if (mayHaveEvents) {
    const Result result = _GetSockEvents(run->state, handler, &mask);
    if (result != RESULT_OK)
      return Fail(SelectorEvent::kGetSockEvents, run->selector, result, handler, result);
  }
  if (handler->timeoutAt != 0 && now >= handler->timeoutAt) mask |= SELECTOR_TIMEOUT;
  if (mask == 0) return RESULT_OK;
  const bool keep =
      (mask & SELECTOR_EXCEPTION) == 0 && handler->callback(run->selector, handler, mask, now) != 0;
  *following = handler->next;
  return keep ? RESULT_OK : RemoveInPass(run, handler);
}

static_assert(std::is_standard_layout_v<Handler>);
Handler* HandlerOf(platform::SocketSelection* selection) {
  return reinterpret_cast<Handler*>(reinterpret_cast<char*>(selection) -
                                    offsetof(Handler, selection));
}

// Serves the handlers in list order. The wait counts the signalled sockets: the pass ends behind
// the last of them unless a handler has a deadline, and a single signalled socket needs no walk.
// Posted calls come first, since they may take any handler out of the list.
Result Pass(Run* run, const platform::SocketWait& wait) {
  run->state->repeatPass = false;
  const bool hasPosted = run->state->pending.count.load(std::memory_order_relaxed) != 0;
  if (wait.only != nullptr && !run->hasDeadlines && !hasPosted) {
    Handler* following;
    return ServeHandler(run, HandlerOf(wait.only), &following);
  }
  std::uint32_t signalled = wait.signalled;
  RunPosted(run->state);
  for (Handler* handler = run->state->handlerHead; handler != nullptr;) {
    if (signalled == 0 && !run->hasDeadlines) break;
    if (handler->selection.signalled != 0 && signalled > 0) --signalled;
    Handler* following = handler->next;
    const Result result = ServeHandler(run, handler, &following);
    if (result != RESULT_OK) return result;
    handler = following;
  }
  return RESULT_OK;
}

Result WaitAndPass(Run* run, std::uint32_t milliseconds) {
  const platform::SocketWait wait = platform::WaitForMultipleObjectsEx(
      run->state->socketEvent, run->state->wakeEvent, milliseconds);
  if (wait.result == platform::kWaitFailed)
    return Fail(SelectorEvent::kWait, run->selector, platform::LastError());
  // A signal after this reset ends the next wait. A failed reset only makes that wait short.
  if (wait.woken) (void)platform::ResetEvent(run->state->wakeEvent);
  return Pass(run, wait);
}

// One turn of the loop: prepare, wait, pass, and another pass while a callback requests one.
Result Turn(Run* run) {
  std::uint64_t now;
  if (!PAL_Time(&now)) return Fail(SelectorEvent::kInitialTime, run->selector);
  if (run->timeoutSelectorAt != 0 && now >= run->timeoutSelectorAt) return RESULT_TIME_OUT;
  Result result = PrepareWait(run, now);
  if (result == RESULT_OK) result = WaitAndPass(run, WaitMilliseconds(run->breakAt, now));
  while (result == RESULT_OK && run->state->repeatPass) {
    run->hasDeadlines = true;  // the callback may have set one: the next pass checks all handlers
    result = WaitAndPass(run, 0);
  }
  return result;
}

// Marks the state as running, also within a run that a callback nests in another one.
class RunMark {
 public:
  explicit RunMark(SelectorState* state)
      : state_(state), before_(state->isRunning.exchange(true, std::memory_order_relaxed)) {}
  ~RunMark() { state_->isRunning.store(before_, std::memory_order_relaxed); }
  RunMark(const RunMark&) = delete;
  RunMark& operator=(const RunMark&) = delete;

 private:
  SelectorState* const state_;
  const bool before_;
};

}  // namespace

void Selector_SetReport(SelectorReport report) { gReportFunction = report; }

Result Selector_Init(Selector* selector) {
  selector->state = nullptr;
  std::unique_ptr<SelectorState> state(new (std::nothrow) SelectorState);
  if (state == nullptr) return RESULT_FAILED;
  state->socketEvent = platform::WSACreateEvent();
  if (state->socketEvent) state->wakeEvent = platform::CreateWakeEvent();
  if (!state->wakeEvent) return RESULT_FAILED;
  selector->state = state.release();
  return RESULT_OK;
}

void Selector_Destroy(Selector* selector) {
  SelectorState* state = selector->state;
  if (state == nullptr) return;
  assert(!state->isRunning.load(std::memory_order_relaxed));
  for (Handler* handler = state->handlerHead; handler != nullptr;) {
    Handler* following = handler->next;
    ClearSockEvents(state, handler);
    (void)handler->callback(selector, handler, SELECTOR_DESTROY, 0);  // nothing is left to keep
    handler = following;
  }
  FinishPosted(state, TakePosted(state), false);
  const std::unique_ptr<SelectorState> last(std::exchange(selector->state, nullptr));
}

Result Selector_AddHandler(Selector* selector, Handler* handler) {
  assert(handler->callback != nullptr);
  if (selector->state == nullptr) return RESULT_FAILED;
  assert(OwnsHandlers(selector));
  std::uint64_t now;
  if (!PAL_Time(&now)) return RESULT_FAILED;
  if (Selector_ContainsHandler(selector, handler) == RESULT_OK) return RESULT_ALREADY_EXISTS;
  DList_Append(&selector->state->handlerHead, &selector->state->handlerTail, handler);
  (void)handler->callback(selector, handler, SELECTOR_ADD, now);  // ignored outside a pass
  return RESULT_OK;
}

Result Selector_RemoveHandler(Selector* selector, Handler* handler) {
  if (Selector_ContainsHandler(selector, handler) != RESULT_OK) return RESULT_NOT_FOUND;
  Selector_DetachHandler(selector, handler);
  (void)handler->callback(selector, handler, SELECTOR_REMOVE, 0);  // nothing is left to keep
  return RESULT_OK;
}

Result Selector_RemoveAllHandlers(Selector* selector) {
  while (selector->state != nullptr && selector->state->handlerHead != nullptr)
    (void)Selector_RemoveHandler(selector, selector->state->handlerHead);  // it is in the list
  return RESULT_OK;
}

void Selector_DetachHandler(Selector* selector, Handler* handler) {
  assert(Selector_ContainsHandler(selector, handler) == RESULT_OK);
  Unlink(selector->state, handler);
  ClearSockEvents(selector->state, handler);
}

Result Selector_ContainsHandler(const Selector* selector, const Handler* handler) {
  if (selector->state == nullptr) return RESULT_NOT_FOUND;
  assert(OwnsHandlers(selector));
  for (const Handler* at = selector->state->handlerHead; at != nullptr; at = at->next)
    if (at == handler) return RESULT_OK;
  return RESULT_NOT_FOUND;
}

void Selector_AllowEmptyList(Selector* selector, bool allow) {
  assert(OwnsHandlers(selector));
  selector->state->allowEmptyList = allow;
}

Result Selector_Run(Selector* selector, std::uint64_t timeoutUsec, bool noReadsMode) {
  SelectorState* state = selector->state;
  if (state == nullptr) return RESULT_FAILED;
  assert(OwnsHandlers(selector));
  const RunMark mark(state);
  Run run{selector, state, noReadsMode, 0, kNever, false};
  if (timeoutUsec != 0) {
    if (!PAL_Time(&run.timeoutSelectorAt)) return Fail(SelectorEvent::kInitialTime, selector);
    run.timeoutSelectorAt += timeoutUsec;
  }
  std::atomic<bool>& keepGoing = noReadsMode ? state->keepRunningNoReads : state->keepRunning;
  state->runThreadId.store(platform::GetCurrentThreadId(), std::memory_order_relaxed);
  keepGoing.store(true, std::memory_order_release);
  Result result = RESULT_OK;
  while (result == RESULT_OK && keepGoing.load(std::memory_order_acquire)) result = Turn(&run);
  return result;
}

bool Selector_IsRunThread(const Selector* selector) {
  return selector->state != nullptr &&
         selector->state->runThreadId.load(std::memory_order_relaxed) ==
             platform::GetCurrentThreadId();
}

void Selector_Wakeup(Selector* selector, bool repeat) {
  if (Selector_IsRunThread(selector)) {
    selector->state->repeatPass = selector->state->repeatPass || repeat;
    return;
  }
  assert(selector->state != nullptr);
  (void)platform::SetEvent(selector->state->wakeEvent);  // a failure leaves the wait to its bound
}

void Selector_Post(Selector* selector, PostedCall* call, void (*drop)(void* message)) {
  assert(selector->state != nullptr && call->callback != nullptr && drop != nullptr);
  SelectorState* state = selector->state;
  PendingCalls* list = TakePendingList(state);
  DList_Append(&list->head, &list->tail, call);
  list->count.fetch_add(1, std::memory_order_relaxed);
  list->drop.store(drop, std::memory_order_relaxed);
  ReleasePendingList(state, list);
  (void)platform::SetEvent(state->wakeEvent);  // a failure leaves the wait to its bound
}

void Selector_StopRunning(Selector* selector) {
  selector->state->keepRunning.store(false, std::memory_order_release);
  Selector_Wakeup(selector, false);
}

void Selector_StopRunningNoReads(Selector* selector) {
  selector->state->keepRunningNoReads.store(false, std::memory_order_release);
  Selector_Wakeup(selector, false);
}

}  // namespace stewardry
