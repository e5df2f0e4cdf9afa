// The selector's loop.
#include "sock/selector.h"

#include <array>
#include <cstddef>
#include <new>
#include <type_traits>

#include "platform/error.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "sock/clock.h"
#include "sock/list_links.h"

namespace stewardry {

SelectorReport gSelectorReport = nullptr;

// The posted calls that the run thread hasn't taken yet.
struct PendingCalls {
  PostedCall* head = nullptr;
  PostedCall* tail = nullptr;
  // Written by whoever holds the list. The run thread looks at it without holding it: relaxed,
  // since a post that it misses signals wakeEvent afterwards, and so ends the wait that follows.
  std::atomic<std::uint32_t> count{0};
  // Written by each post, with one value; relaxed, since the list's guard orders it before its use.
  std::atomic<void (*)(void*)> drop{nullptr};
};

struct SelectorState {
  Handler* handlerHead = nullptr;
  Handler* handlerTail = nullptr;
  platform::SocketEvent socketEvent;
  platform::WakeEvent wakeEvent;
  // Written by the run thread at the start of a run, read by the threads that wake it. Relaxed: a
  // thread only compares it with its own number, which no other thread stores.
  std::atomic<std::uint32_t> runThreadId{0};
  // Cleared by any thread, which then signals wakeEvent; that signal orders it before the run
  // thread's next look, so release and acquire are the weakest that do.
  std::atomic<bool> keepRunning{false};
  std::atomic<bool> keepRunningNoReads{false};
  PendingCalls pending;
  // Points at `pending` while that is free, and is null while a thread holds it. Taken with acquire
  // and given back with release, so that each holder sees what the one before it did.
  std::atomic<PendingCalls*> pendingList{&pending};
  bool repeatPass = false;  // run thread only
  bool allowEmptyList = false;
};

namespace {

constexpr std::uint64_t kNever = ~std::uint64_t{0};

Result Report(SelectorEvent event, const Selector* selector, std::uint32_t detail = 0,
              const Handler* handler = nullptr, Result result = RESULT_FAILED) {
  if (gSelectorReport != nullptr) gSelectorReport(event, selector, detail, handler);
  return result;
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

// The network events for each set of the three masks, which stand side by side: a turn looks at
// every handler, so that look is a load and a comparison.
constexpr std::uint32_t kWantedMasks = SELECTOR_READ | SELECTOR_WRITE | SELECTOR_EXCEPTION;
static_assert(kWantedMasks == 14);
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

// Takes the socket out of the shared event. Its failure leaves nothing to do: the socket is about
// to be closed.
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

void GiveBack(SelectorState* state, PendingCalls* list) {
  state->pendingList.store(list, std::memory_order_release);
}

// Empties the list, and gives its calls in the order of their posts.
PostedCall* TakePosted(SelectorState* state) {
  PendingCalls* list = TakePendingList(state);
  PostedCall* first = list->head;
  list->head = list->tail = nullptr;
  list->count.store(0, std::memory_order_relaxed);
  GiveBack(state, list);
  return first;
}

// Gives the messages of `call` and those behind it back, after their callbacks if they shall run. A
// call lies in its message, so it isn't touched after that.
void FinishPosted(SelectorState* state, PostedCall* call, bool runs) {
  while (call != nullptr) {
    PostedCall* next = call->next;
    void* message = call->message;
    if (runs) call->callback(call->callbackData, message);
    state->pending.drop.load(std::memory_order_relaxed)(message);
    call = next;
  }
}

void RunPosted(SelectorState* state) {
  if (state->pending.count.load(std::memory_order_relaxed) == 0) return;
  FinishPosted(state, TakePosted(state), true);
}

// One run's view of the selector.
struct Run {
  Selector* selector;
  SelectorState* state;
  bool noReadsMode;
  std::uint64_t timeoutSelectorAt;
  std::uint64_t breakAt;  // when the coming wait must end
  bool hasDeadlines;      // a handler of this turn has one
};

// Selects every socket for what its handler wants now, and finds the earliest deadline.
Result PrepareWait(Run* run, std::uint64_t now) {
  run->breakAt = run->timeoutSelectorAt != 0 ? run->timeoutSelectorAt : kNever;
  run->hasDeadlines = false;
  for (Handler* handler = run->state->handlerHead; handler != nullptr; handler = handler->next) {
    if (handler->sock != kInvalidSock) {
      const Result result =
          _SetSockEvents(run->state, handler, handler->eventMask, run->noReadsMode);
      if (result != RESULT_OK)
        return Report(SelectorEvent::kSetSockEvents, run->selector, result, handler, result);
    }
    if (handler->timeoutAt == 0) continue;
    run->hasDeadlines = true;
    const std::uint64_t due = handler->timeoutAt <= now ? now : handler->timeoutAt;
    if (due < run->breakAt) run->breakAt = due;
  }
  if (run->state->handlerHead == nullptr && !run->state->allowEmptyList)
    return Report(SelectorEvent::kEmptyList, run->selector);
  return RESULT_OK;
}

std::uint32_t WaitMilliseconds(std::uint64_t breakAt, std::uint64_t now) {
  if (breakAt == kNever) return platform::kInfinite;
  const std::uint64_t wait = (breakAt - now) / 1000;
  return static_cast<std::uint32_t>(wait < platform::kInfinite ? wait : platform::kInfinite - 1);
}

// Removes a handler that asked for it, or that got out-of-band data.
Result RemoveInPass(Run* run, Handler* handler) {
  Unlink(run->state, handler);
  std::uint64_t now;
  if (!PAL_Time(&now)) return Report(SelectorEvent::kTimeInPass, run->selector);
  ClearSockEvents(run->state, handler);
  (void)handler->callback(run->selector, handler, SELECTOR_REMOVE, now);  // nothing is left to keep
  return RESULT_OK;
}

// Offers one handler its events. *following is read again after the callback, so that a handler
// which the callback unlinked or appended is respected.
Result ServeHandler(Run* run, Handler* handler, Handler** following) {
  std::uint32_t mask = 0;
  const bool mayHaveNews =
      handler->sock != kInvalidSock && platform::MayHaveEvents(handler->selection);
  if (!mayHaveNews && handler->timeoutAt == 0) return RESULT_OK;
  std::uint64_t now;
  if (!PAL_Time(&now)) return Report(SelectorEvent::kTimeInPass, run->selector);
  if (mayHaveNews) {
    const Result result = _GetSockEvents(run->state, handler, &mask);
    if (result != RESULT_OK)
      return Report(SelectorEvent::kGetSockEvents, run->selector, result, handler, result);
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

// Serves the handlers in list order. The wait counts the sockets with news: behind the last of them
// nothing is left to do, unless deadlines must be looked at. So one socket alone is served without
// a walk. Posted calls come first, and may take any handler out of the list.
Result Pass(Run* run, const platform::SocketWait& wait) {
  run->state->repeatPass = false;
  const bool hasPosted = run->state->pending.count.load(std::memory_order_relaxed) != 0;
  if (wait.only != nullptr && !run->hasDeadlines && !hasPosted) {
    Handler* following;
    return ServeHandler(run, HandlerOf(wait.only), &following);
  }
  std::uint32_t news = wait.signalled;
  RunPosted(run->state);
  for (Handler* handler = run->state->handlerHead; handler != nullptr;) {
    if (news == 0 && !run->hasDeadlines) break;
    if (handler->selection.signalled != 0 && news > 0) --news;
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
    return Report(SelectorEvent::kWait, run->selector, platform::LastError());
  // A signal that comes after this reset wakes the next wait.
  if (wait.woken) (void)platform::ResetEvent(run->state->wakeEvent);  // or the next wait is short
  return Pass(run, wait);
}

// One turn of the loop: prepare, wait, pass, and another pass as long as a callback asks for it.
Result Turn(Run* run) {
  std::uint64_t now;
  if (!PAL_Time(&now)) return Report(SelectorEvent::kInitialTime, run->selector);
  if (run->timeoutSelectorAt != 0 && now >= run->timeoutSelectorAt) return RESULT_TIME_OUT;
  Result result = PrepareWait(run, now);
  if (result == RESULT_OK) result = WaitAndPass(run, WaitMilliseconds(run->breakAt, now));
  while (result == RESULT_OK && run->state->repeatPass) {
    run->hasDeadlines = true;  // the callback may have set one: the next pass looks at all
    result = WaitAndPass(run, 0);
  }
  return result;
}

}  // namespace

Result Selector_Init(Selector* selector) {
  selector->state = nullptr;
  auto* state = new (std::nothrow) SelectorState;
  if (state == nullptr) return RESULT_FAILED;
  state->socketEvent = platform::WSACreateEvent();
  if (state->socketEvent) state->wakeEvent = platform::CreateWakeEvent();
  if (!state->wakeEvent) {
    delete state;
    return RESULT_FAILED;
  }
  selector->state = state;
  return RESULT_OK;
}

void Selector_Destroy(Selector* selector) {
  SelectorState* state = selector->state;
  if (state == nullptr) return;
  for (Handler* handler = state->handlerHead; handler != nullptr;) {
    Handler* following = handler->next;
    ClearSockEvents(state, handler);
    (void)handler->callback(selector, handler, SELECTOR_DESTROY, 0);  // nothing is left to keep
    handler = following;
  }
  FinishPosted(state, TakePosted(state), false);
  delete state;
  selector->state = nullptr;
}

Result Selector_AddHandler(Selector* selector, Handler* handler) {
  if (selector->state == nullptr) return RESULT_FAILED;
  std::uint64_t now;
  if (!PAL_Time(&now)) return RESULT_FAILED;
  if (Selector_ContainsHandler(selector, handler) == RESULT_OK) return RESULT_ALREADY_EXISTS;
  DList_Append(&selector->state->handlerHead, &selector->state->handlerTail, handler);
  (void)handler->callback(selector, handler, SELECTOR_ADD, now);  // counts in a pass only
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
  Unlink(selector->state, handler);
  ClearSockEvents(selector->state, handler);
}

Result Selector_ContainsHandler(const Selector* selector, const Handler* handler) {
  if (selector->state == nullptr) return RESULT_NOT_FOUND;
  for (const Handler* at = selector->state->handlerHead; at != nullptr; at = at->next)
    if (at == handler) return RESULT_OK;
  return RESULT_NOT_FOUND;
}

void Selector_AllowEmptyList(Selector* selector, bool allow) {
  selector->state->allowEmptyList = allow;
}

Result Selector_Run(Selector* selector, std::uint64_t timeoutUsec, bool noReadsMode) {
  SelectorState* state = selector->state;
  if (state == nullptr) return RESULT_FAILED;
  Run run{selector, state, noReadsMode, 0, kNever, false};
  if (timeoutUsec != 0) {
    if (!PAL_Time(&run.timeoutSelectorAt)) return Report(SelectorEvent::kInitialTime, selector);
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
  (void)platform::SetEvent(selector->state->wakeEvent);  // a failure leaves the wait to its bound
}

void Selector_Post(Selector* selector, PostedCall* call, void (*drop)(void* message)) {
  SelectorState* state = selector->state;
  PendingCalls* list = TakePendingList(state);
  DList_Append(&list->head, &list->tail, call);
  list->count.fetch_add(1, std::memory_order_relaxed);
  list->drop.store(drop, std::memory_order_relaxed);
  GiveBack(state, list);
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
