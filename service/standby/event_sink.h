// Receives the rows of an asynchronous battery query and logs them. No flow of the service creates
// one; it is meant for platform::ExecQueryAsync.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/wmi.h"

namespace stewardry {

// A COM object in plain C++: its count of references owns it, and the last Release destroys it on
// the calling thread. WMI calls it on threads of its own.
class EventSink final : public platform::ObjectSink {
 public:
  struct Releaser {
    void operator()(EventSink* sink) const { sink->Release(); }
  };
  using Reference = std::unique_ptr<EventSink, Releaser>;
  // Returns the first reference to a new sink.
  static Reference Make() { return Reference(new EventSink); }

  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  // IWbemObjectSink. Logs the rows, their BatteryStatus and the end of the query.
  platform::HResult QueryInterface(const platform::Guid& interfaceId, void** object) override;
  std::uint32_t AddRef() override;
  std::uint32_t Release() override;
  platform::HResult Indicate(std::int32_t count, platform::RawHandle* rows) override;
  platform::HResult SetStatus(std::int32_t flags, platform::HResult result, char16_t* text,
                              platform::RawHandle object) override;

  // Returns whether the query has ended. Any thread.
  bool IsDone() const { return done_.load(std::memory_order_acquire); }

 private:
  EventSink() = default;
  ~EventSink() = default;

  // Relaxed to take a reference; acquire and release to drop one, so that the thread that destroys
  // the object sees all that others did to it.
  std::atomic<std::uint32_t> references_{1};
  // Written by WMI's thread after the last line; release and acquire, so that a thread that sees it
  // finds the lines in the logs.
  std::atomic<bool> done_{false};
};

}  // namespace stewardry
