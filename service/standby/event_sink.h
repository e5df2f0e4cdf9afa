// Takes the rows of an asynchronous battery query and writes them down. Nothing creates one; it is
// at hand for platform::ExecQueryAsync.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/wmi.h"

namespace stewardry {

// Its life is its count of references: the last Release ends it, on whichever thread that is. WMI
// calls it on threads of its own.
class EventSink final : public platform::ObjectSink {
 public:
  struct Releaser {
    void operator()(EventSink* sink) const { sink->Release(); }
  };
  using Reference = std::unique_ptr<EventSink, Releaser>;
  // The first reference to a new one.
  static Reference Make() { return Reference(new EventSink); }

  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  // IWbemObjectSink. The rows and their BatteryStatus are logged, and how the query ends.
  platform::HResult QueryInterface(const platform::Guid& interfaceId, void** object) override;
  std::uint32_t AddRef() override;
  std::uint32_t Release() override;
  platform::HResult Indicate(std::int32_t count, platform::RawHandle* rows) override;
  platform::HResult SetStatus(std::int32_t flags, platform::HResult result, char16_t* text,
                              platform::RawHandle object) override;

  // Whether the query has ended. Any thread.
  bool IsDone() const { return done_.load(std::memory_order_acquire); }

 private:
  EventSink() = default;
  ~EventSink() = default;

  // Taking a reference orders nothing; giving one back is acquire and release, so that whoever
  // ends the object sees all that the others did to it.
  std::atomic<std::uint32_t> references_{1};
  // Written by WMI's thread behind the last line; release and acquire, so that who sees it finds
  // the lines in the logs.
  std::atomic<bool> done_{false};
};

}  // namespace stewardry
