// The mailbox driver from both sides in one process: as the service's handles, and as its bridge.
// It runs where the driver is installed and nothing else uses it.
#include <gtest/gtest.h>
#include <windows.h>
// These need windows.h.
#include <setupapi.h>
#include <winioctl.h>

#include <array>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lab/driver/lab_control.h"
#include "platform/linux/lab_link.h"

namespace {

constexpr GUID kMailboxClass = {
    0x70A9067B, 0x708F, 0x443C, {0x84, 0xBA, 0xBC, 0x39, 0x1F, 0xDB, 0xF7, 0x2B}};
constexpr DWORD kPatience = 30000;  // milliseconds; a bound on a hang
constexpr DWORD kAskRegion = 0x9C416450;
constexpr DWORD kGiveBackRegion = 0x9C416454;
constexpr DWORD kReadRequest = 0x9C416424;

std::string MailboxPath() {
  HDEVINFO set =
      SetupDiGetClassDevsA(&kMailboxClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
  SP_DEVICE_INTERFACE_DATA data{};
  data.cbSize = sizeof data;
  std::array<char, 512> block{};
  auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(block.data());
  detail->cbSize = sizeof *detail;
  std::string path;
  if (SetupDiEnumDeviceInterfaces(set, nullptr, &kMailboxClass, 0, &data) &&
      SetupDiGetDeviceInterfaceDetailA(set, &data, detail, block.size(), nullptr, nullptr))
    path = detail->DevicePath;
  SetupDiDestroyDeviceInfoList(set);
  return path;
}

// One open of a device, for overlapped use.
class Device {
 public:
  explicit Device(const std::string& path)
      : handle_(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                            FILE_FLAG_OVERLAPPED, nullptr)) {}
  Device(const Device&) = delete;
  ~Device() { Close(); }
  void Close() {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
  }
  HANDLE Get() const { return handle_; }

 private:
  HANDLE handle_;
};

// One request, read or write in flight.
class Transfer {
 public:
  explicit Transfer(HANDLE device) : device_(device) {
    record_.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  }
  Transfer(const Transfer&) = delete;
  ~Transfer() { CloseHandle(record_.hEvent); }
  OVERLAPPED* Record() { return &record_; }
  // Ends with 0 or the platform's error; *bytes gets the count.
  DWORD Await(DWORD* bytes = nullptr) {
    DWORD moved = 0;
    if (WaitForSingleObject(record_.hEvent, kPatience) != WAIT_OBJECT_0) return WAIT_TIMEOUT;
    const DWORD error = GetOverlappedResult(device_, &record_, &moved, FALSE) ? 0 : GetLastError();
    if (bytes != nullptr) *bytes = moved;
    return error;
  }
  bool Pends() { return WaitForSingleObject(record_.hEvent, 0) == WAIT_TIMEOUT; }

 private:
  HANDLE device_;
  OVERLAPPED record_{};
};

struct Message {
  lablink::Head head{};
  std::string body;
};

class Driver : public ::testing::Test {
 protected:
  Driver() : path_(MailboxPath()), requests_(path_), reads_(path_), bridge_(TAVRIN_LAB_PATH) {}

  void SetUp() override {
    ASSERT_NE(requests_.Get(), INVALID_HANDLE_VALUE);
    ASSERT_NE(reads_.Get(), INVALID_HANDLE_VALUE);
    ASSERT_NE(bridge_.Get(), INVALID_HANDLE_VALUE);
    ArmBridge();
  }

  // Nothing may be in flight when its record goes.
  void TearDown() override {
    CancelIoEx(bridge_.Get(), nullptr);
    (void)bridgeRead_->Await();
  }

  // The bridge's next message; an empty one after a failure.
  Message Next() {
    Message message;
    DWORD size = 0;
    if (bridgeRead_->Await(&size) != 0 || size < sizeof message.head) return message;
    std::memcpy(&message.head, inbox_.data(), sizeof message.head);
    message.body.assign(inbox_.data() + sizeof message.head, size - sizeof message.head);
    ArmBridge();
    return message;
  }
  // The next message of that kind.
  Message Next(std::uint32_t kind) {
    for (;;) {
      Message message = Next();
      if (message.head.magic == 0 || message.head.kind == kind) return message;
    }
  }

  DWORD SendRaw(std::string bytes) {
    Transfer write(bridge_.Get());
    if (!WriteFile(bridge_.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                   write.Record()) &&
        GetLastError() != ERROR_IO_PENDING)
      return GetLastError();
    return write.Await();
  }
  DWORD Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word, std::string_view body = {}) {
    const lablink::Head head{lablink::kMagic, kind, id, word,
                             static_cast<std::uint32_t>(body.size())};
    return SendRaw(std::string(reinterpret_cast<const char*>(&head), sizeof head) +
                   std::string(body));
  }

  static bool Pended(BOOL done) { return !done && GetLastError() == ERROR_IO_PENDING; }
  bool Read(Transfer* read, std::span<char> buffer) {
    return Pended(ReadFile(reads_.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), nullptr,
                           read->Record()));
  }
  bool Ask(Transfer* request, DWORD code, std::span<char> output) {
    return Pended(DeviceIoControl(requests_.Get(), code, nullptr, 0, output.data(),
                                  static_cast<DWORD>(output.size()), nullptr, request->Record()));
  }

  std::string path_;
  Device requests_, reads_, bridge_;

 private:
  void ArmBridge() {
    bridgeRead_ = std::make_unique<Transfer>(bridge_.Get());
    ReadFile(bridge_.Get(), inbox_.data(), static_cast<DWORD>(inbox_.size()), nullptr,
             bridgeRead_->Record());
  }

  std::vector<char> inbox_ = std::vector<char>(sizeof(lablink::Head) + lablink::kMaxBody);
  std::unique_ptr<Transfer> bridgeRead_;
};

TEST_F(Driver, FramesComeOutOfOrderOrAreCut) {
  ASSERT_EQ(Send(lablink::kFrame, 0, 0, "before any read"), 0u);
  std::array<std::array<char, 64>, 3> buffers{};
  Transfer first(reads_.Get()), second(reads_.Get()), third(reads_.Get());
  ASSERT_TRUE(Read(&first, buffers[0]));
  ASSERT_TRUE(Read(&second, buffers[1]));
  ASSERT_TRUE(Read(&third, buffers[2]));
  DWORD size = 0;
  EXPECT_EQ(first.Await(&size), 0u);
  EXPECT_EQ(std::string(buffers[0].data(), size), "before any read");
  EXPECT_TRUE(second.Pends());
  EXPECT_EQ(Next(lablink::kOpen).head.word, 0u);  // the handle that reads
  EXPECT_EQ(Next(lablink::kRead).head.id, 1u);
  EXPECT_EQ(Send(lablink::kFrame, 0, 0, std::string(65, 'x')), 0u);
  EXPECT_EQ(second.Await(), static_cast<DWORD>(ERROR_MORE_DATA));
  EXPECT_EQ(Send(lablink::kFailRead, 0, 1117), 0u);
  EXPECT_EQ(third.Await(), 1117u);
}

TEST_F(Driver, ACancelledOrClosedRequestHangsOrIsAnsweredTwice) {
  std::array<char, 80> output{};
  Transfer one(requests_.Get()), two(requests_.Get());
  ASSERT_TRUE(Ask(&one, kReadRequest, output));
  ASSERT_TRUE(Ask(&two, kReadRequest, output));
  EXPECT_EQ(Next(lablink::kOpen).head.word, 1u);
  const std::uint64_t id = Next(lablink::kRequest).head.id;
  EXPECT_TRUE(CancelIoEx(requests_.Get(), one.Record()));
  EXPECT_EQ(one.Await(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
  EXPECT_EQ(Next(lablink::kCancel).head.id, id);
  EXPECT_EQ(Send(lablink::kComplete, id, 0, "late"), 0u);
  EXPECT_TRUE(two.Pends());
  EXPECT_EQ(Send(lablink::kComplete, id + 1, 0, "whole"), 0u);
  DWORD size = 0;
  EXPECT_EQ(two.Await(&size), 0u);
  EXPECT_EQ(std::string(output.data(), size), "whole");

  std::array<char, 64> buffer{};
  Transfer read(reads_.Get());
  ASSERT_TRUE(Read(&read, buffer));
  reads_.Close();
  EXPECT_EQ(WaitForSingleObject(read.Record()->hEvent, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(Next(lablink::kClose).head.word, 0u);
}

TEST_F(Driver, ARaceOfAnswerAndCancelLosesARequest) {
  for (int i = 0; i < 100; ++i) {
    std::array<char, 80> output{};
    Transfer request(requests_.Get());
    ASSERT_TRUE(Ask(&request, kReadRequest, output));
    const std::uint64_t id = Next(lablink::kRequest).head.id;
    std::thread canceller([&] { CancelIoEx(requests_.Get(), request.Record()); });
    EXPECT_EQ(Send(lablink::kComplete, id, 0, "answer"), 0u);
    canceller.join();
    const DWORD error = request.Await();
    EXPECT_TRUE(error == 0 || error == ERROR_OPERATION_ABORTED) << error;
  }
}

TEST_F(Driver, AHostileMessageIsTaken) {
  const std::string head(sizeof(lablink::Head), '\0');
  for (const std::string& bytes : {std::string(), head.substr(1), head, head + "body"})
    EXPECT_NE(SendRaw(bytes), 0u);
  lablink::Head torn{lablink::kMagic, lablink::kFrame, 0, 0, 5};
  EXPECT_NE(SendRaw(std::string(reinterpret_cast<const char*>(&torn), sizeof torn) + "four"), 0u);
  EXPECT_NE(Send(99, 0, 0), 0u);
  EXPECT_NE(Send(lablink::kRequest, 0, 0), 0u);  // only the driver sends those
  EXPECT_NE(Send(lablink::kFrame, 0, 0, std::string(lablink::kMaxFrame + 1, 'x')), 0u);
  EXPECT_EQ(Send(lablink::kComplete, 0xFFFFFFFFFFFFFFFF, 0, "nobody asked"), 0u);
  const std::string word(4, '\1');
  for (const auto& [region, offset] : {std::pair<std::uint64_t, std::uint32_t>{0, 65533},
                                       {0, 65536},
                                       {0, 0xFFFFFFFF},
                                       {1, 262149},
                                       {2, 0},
                                       {0xFFFFFFFFFFFFFFFF, 0}})
    EXPECT_NE(Send(lablink::kPoke, region, offset, word), 0u) << region << ' ' << offset;
  EXPECT_EQ(Send(lablink::kPoke, 1, 262148, word), 0u);
  EXPECT_NE(Send(lablink::kPeek, 0, 1, std::string("\0\0\1\0", 4)), 0u);
  EXPECT_NE(Send(lablink::kPeek, 0, 0, "abc"), 0u);
}

TEST_F(Driver, TheRegionIsAnotherOneOrStaysMapped) {
  std::uint64_t address[2] = {};
  const std::span output(reinterpret_cast<char*>(address), sizeof address);
  Transfer ask(requests_.Get());
  ASSERT_TRUE(Ask(&ask, kAskRegion, output));
  EXPECT_EQ(Send(lablink::kComplete, Next(lablink::kRequest).head.id, 0,
                 std::string("\1\0\0\0\0\0\0\0", 8) + std::string(8, '\0')),
            0u);
  ASSERT_EQ(ask.Await(), 0u);
  auto* region = reinterpret_cast<volatile char*>(address[0]);
  ASSERT_NE(region, nullptr);
  EXPECT_EQ(Send(lablink::kPoke, 0, 65532, "poke"), 0u);
  EXPECT_EQ(region[65532], 'p');
  region[1] = 'w';
  EXPECT_EQ(Send(lablink::kPeek, 0, 0, std::string("\2\0\0\0", 4)), 0u);
  EXPECT_EQ(Next(lablink::kMemory).body[1], 'w');

  Transfer giveBack(requests_.Get());
  ASSERT_TRUE(Ask(&giveBack, kGiveBackRegion, output.first(8)));
  EXPECT_EQ(Send(lablink::kComplete, Next(lablink::kRequest).head.id, 0, std::string(8, '\0')), 0u);
  EXPECT_EQ(giveBack.Await(), 0u);
  MEMORY_BASIC_INFORMATION info{};
  VirtualQuery(const_cast<char*>(region), &info, sizeof info);
  EXPECT_EQ(info.State, static_cast<DWORD>(MEM_FREE));
}

}  // namespace
