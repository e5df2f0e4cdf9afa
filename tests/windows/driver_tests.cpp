// The mailbox driver with its service and its bridge in one process. Requires that the driver is
// installed and not used otherwise.
#include <gtest/gtest.h>
#include <initguid.h>
#include <windows.h>
// These need windows.h.
#include <batclass.h>
#include <setupapi.h>
#include <winioctl.h>

#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "lab/driver/lab_control.h"
#include "lablink/messages.h"
#include "platform/battery.h"
#include "platform/service_manager.h"

namespace {

constexpr GUID kMailboxClass = {
    0x70A9067B, 0x708F, 0x443C, {0x84, 0xBA, 0xBC, 0x39, 0x1F, 0xDB, 0xF7, 0x2B}};
constexpr DWORD kPatience = 60000;  // milliseconds; ends a hung test
constexpr DWORD kReadRequest = 0x9C416424;

std::string MailboxPath() {
  HDEVINFO set =
      SetupDiGetClassDevsA(&kMailboxClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
  SP_DEVICE_INTERFACE_DATA data{};
  data.cbSize = sizeof data;
  std::array<char, 512> block{};
  auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(block.data());
  detail->cbSize = sizeof *detail;
  SetupDiEnumDeviceInterfaces(set, nullptr, &kMailboxClass, 0, &data);
  SetupDiGetDeviceInterfaceDetailA(set, &data, detail, block.size(), nullptr, nullptr);
  SetupDiDestroyDeviceInfoList(set);
  return detail->DevicePath;
}

// One open of a device, for overlapped use.
class Device {
 public:
  explicit Device(const std::string& path)
      : handle_(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                            FILE_FLAG_OVERLAPPED, nullptr)) {
    EXPECT_NE(handle_, INVALID_HANDLE_VALUE) << path;
  }
  Device(const Device&) = delete;
  ~Device() { Close(); }
  void Close() { CloseHandle(std::exchange(handle_, nullptr)); }
  HANDLE Get() const { return handle_; }

 private:
  HANDLE handle_;
};

// One request, read or write in flight. Must have ended before it is destroyed.
class Transfer {
 public:
  explicit Transfer(const Device& device) : device_(device.Get()) {
    record_.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  }
  Transfer(const Transfer&) = delete;
  ~Transfer() { CloseHandle(record_.hEvent); }

  void Read(std::span<char> to) {
    Start(ReadFile(device_, to.data(), static_cast<DWORD>(to.size()), nullptr, &record_));
  }
  void Write(std::string_view bytes) {
    Start(WriteFile(device_, bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &record_));
  }
  void Ask(DWORD code, std::span<char> output) {
    Start(DeviceIoControl(device_, code, nullptr, 0, output.data(),
                          static_cast<DWORD>(output.size()), nullptr, &record_));
  }
  void Cancel() { CancelIoEx(device_, &record_); }
  bool HasEnded(DWORD milliseconds) {
    return WaitForSingleObject(record_.hEvent, milliseconds) == WAIT_OBJECT_0;
  }
  // Returns 0 or the error.
  DWORD Await() {
    if (error_ != ERROR_IO_PENDING) return error_;
    if (!HasEnded(kPatience)) return WAIT_TIMEOUT;
    return GetOverlappedResult(device_, &record_, &size_, FALSE) ? 0 : GetLastError();
  }
  DWORD Size() const { return size_; }  // bytes, once it has ended

 private:
  void Start(BOOL done) { error_ = done ? 0 : GetLastError(); }

  HANDLE device_;
  OVERLAPPED record_{};
  DWORD error_ = 0, size_ = 0;
};

struct Message {
  lablink::Head head{};
  std::string body;
};

class Driver : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(HasFailure()); }  // all devices are open

  // Returns the bridge's next message of that kind; zeros after a failure.
  Message Next(std::uint32_t kind) {
    std::vector<char> inbox(sizeof(lablink::Head) + lablink::kMaxBody);
    for (;;) {
      Message message;
      Transfer read(bridge_);
      read.Read(inbox);
      if (read.Await() != 0 || read.Size() < sizeof message.head) return message;
      std::memcpy(&message.head, inbox.data(), sizeof message.head);
      message.body.assign(inbox.data() + sizeof message.head, read.Size() - sizeof message.head);
      if (message.head.kind == kind) return message;
    }
  }
  // Answers a request through that open of the lab device. Returns 0 or the error.
  DWORD Answer(std::uint64_t id, std::string_view body) { return Answer(id, body, bridge_); }
  DWORD Answer(std::uint64_t id, std::string_view body, const Device& device) {
    std::string bytes;
    lablink::AppendMessage(&bytes, lablink::kComplete, id, 0, body);
    Transfer write(device);
    write.Write(bytes);
    return write.Await();
  }

  const std::string path_ = MailboxPath();
  Device requests_{path_}, reads_{path_}, bridge_{TAVRIN_LAB_PATH};
};

// Windows' headers have no constant expressions for these.
TEST(Contract, GuidsAreThoseOfWindows) {
  const std::pair<platform::Guid, GUID> guids[] = {
      {platform::kBatteryInterfaceClass, GUID_DEVICE_BATTERY},
      {platform::kGuidAcdcPowerSource, GUID_ACDC_POWER_SOURCE},
      {platform::kGuidBatteryPercentageRemaining, GUID_BATTERY_PERCENTAGE_REMAINING},
      {platform::kGuidGlobalUserPresence, GUID_GLOBAL_USER_PRESENCE}};
  for (const auto& [ours, windows] : guids)
    EXPECT_EQ(std::memcmp(&ours, &windows, sizeof windows), 0);
}

TEST_F(Driver, CancelOrCloseEndsARequestOnce) {
  std::array<char, 80> output{};
  Transfer one(requests_), two(requests_);
  one.Ask(kReadRequest, output);
  two.Ask(kReadRequest, output);
  const std::uint64_t id = Next(lablink::kRequest).head.id;
  one.Cancel();
  EXPECT_EQ(one.Await(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
  EXPECT_EQ(Next(lablink::kCancel).head.id, id);
  EXPECT_EQ(Answer(id, "late"), 0u);
  EXPECT_FALSE(two.HasEnded(0));
  EXPECT_EQ(Answer(id + 1, "whole"), 0u);
  EXPECT_EQ(two.Await(), 0u);
  EXPECT_EQ(std::string_view(output.data(), two.Size()), "whole");

  Transfer read(reads_);
  read.Read(output);
  reads_.Close();
  EXPECT_TRUE(read.HasEnded(kPatience));
  EXPECT_EQ(Next(lablink::kClose).head.word, 0u);
}

TEST_F(Driver, OnlyTheBridgeTransfersWithTheLabDevice) {
  std::array<char, 80> output{};
  Transfer request(requests_);
  request.Ask(kReadRequest, output);
  const std::uint64_t id = Next(lablink::kRequest).head.id;
  const Device other(TAVRIN_LAB_PATH);
  EXPECT_EQ(Answer(id, "forged", other), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(Answer(id, "genuine", bridge_), 0u);
  EXPECT_EQ(request.Await(), 0u);
  EXPECT_EQ(std::string_view(output.data(), request.Size()), "genuine");
}

TEST_F(Driver, RequestWithAnAnswerAndACancelAtOnceEnds) {
  for (int i = 0; i < 100; ++i) {
    std::array<char, 80> output{};
    Transfer request(requests_);
    request.Ask(kReadRequest, output);
    const std::uint64_t id = Next(lablink::kRequest).head.id;
    std::thread canceller([&] { request.Cancel(); });
    EXPECT_EQ(Answer(id, "answer"), 0u);
    canceller.join();
    const DWORD error = request.Await();
    EXPECT_TRUE(error == 0 || error == ERROR_OPERATION_ABORTED) << error;
  }
}

}  // namespace
