#include "service/mailbox/request.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>
#include <vector>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kStatusCode = ControlCodeFor(Operation::kGetOrrinStatus).code;
constexpr std::uint32_t kS5Code = ControlCodeFor(Operation::kSetS5Status).code;
constexpr std::uint32_t kRegionCode = ControlCodeFor(Operation::kDeAllocateKVM_KB_MB_Buffers).code;

class Request : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    OpenMailbox();
  }
  // Starts a request that the firmware holds, on a thread of its own.
  std::thread HeldStatusRequest() {
    firmware_->SetVerdict(kStatusCode, FirmwarePeer::kHold);
    std::thread waiter([this] { EXPECT_EQ(GetOrrinStatus(&status_), 0U); });
    EXPECT_TRUE(firmware_->Await(kStatusCode));
    return waiter;
  }

  std::uint8_t status_ = 9;
};

TEST_F(Request, EachMessageHasItsCodeAndItsBytes) {
  const std::uint32_t fan = 0x01020304;
  SensorInfo sensor{};
  sensor.bytes[31] = 9;
  char dash[] = "tls bytes";
  packet data{1, dash, 9, nullptr, 77};
  WriteFanInfo(&fan);
  WriteSensorInfo(&sensor);
  EXPECT_EQ(WriteDASHPacket(&data), 0U);
  EXPECT_EQ(data.replySize, 0U);
  EXPECT_EQ(WriteKVMPacket(&data), 0U);
  EXPECT_EQ(DeAllocateKVM_KB_MB_Buffers(), 0U);
  EXPECT_EQ(SetS5Status(), 0U);
  std::vector<std::pair<std::uint32_t, std::string>> sent;
  for (const auto& request : firmware_->Requests()) sent.emplace_back(request.code, request.input);
  EXPECT_EQ(sent, (decltype(sent){{0x9C41A440, "\x04\x03\x02\x01"},
                                  {0x9C41A444, std::string(31, '\0') + '\x09'},
                                  {0x9C41A400, "tls bytes"},
                                  {0x9C41A43D, "tls bytes"},
                                  {0x9C416454, ""},
                                  {0x9C41A460, {"\x02\0", 2}}}));
}

TEST_F(Request, CompletedReadStoresTheAnswer) {
  firmware_->SetStatus(2);
  EXPECT_EQ(GetOrrinStatus(&status_), 0U);
  EXPECT_EQ(status_, 2);
  EXPECT_TRUE(Logged("Asynchronous IO completed for GetOrrinStatus readbytes is 1"));
  firmware_->SetVerdict(kStatusCode, 31);
  EXPECT_EQ(GetOrrinStatus(&status_), 0U) << "started, whatever its outcome";
  EXPECT_EQ(status_, 2);
  EXPECT_TRUE(Logged("GetOverlappedResult failed for GetOrrinStatus with error: 31"));
  firmware_->SetVerdict(kS5Code, 31);
  EXPECT_EQ(SetS5Status(), 1U);
  EXPECT_TRUE(Logged("Error calling IOCTL: IOCTL_CORVANE_SET_S5_STATUS"));
}

TEST_F(Request, VersionWithoutATerminatorEndsAtItsField) {
  firmware_->SetAnswer(FirmwarePeer::kReadVersion, std::string(80, 'v'));
  SharedRecord<TavrinVersionInfo> info;
  GetTavrinVersion(&info);
  EXPECT_EQ(info.Load().version, std::string(63, 'v'));
  EXPECT_TRUE(Logged("Read data is " + std::string(63, 'v')));
  EXPECT_TRUE(Logged("uECAbsent 76767676"));
  // A short answer, and a text with a line break.
  firmware_->SetAnswer(FirmwarePeer::kReadVersion, std::string(79, 'w'));
  GetTavrinVersion(&info);
  EXPECT_EQ(info.Load().version, std::string(63, 'v'));
  EXPECT_EQ(info.Load().provisionStatus, 0x76767676U);
  firmware_->SetAnswer(FirmwarePeer::kReadVersion, "7\r\n1" + std::string(76, '\0'));
  GetTavrinVersion(&info);
  EXPECT_TRUE(Logged("Read data is 7??1"));
}

TEST_F(Request, FailedStepLogsTheOperationsWording) {
  const std::uint32_t up = kServiceUp;
  using Row = std::tuple<const char*, std::uint64_t, std::uint32_t, std::uint32_t, const char*>;
  for (const auto& [call, skip, error, result, line] :
       {Row{"DeviceIoControl", 0, 21, 1,
            "Asynchronous WriteTavrinStatus command failed with error: 21"},
        // A driver that finishes the request at once.
        Row{"DeviceIoControl", 0, gate::kFinishAtOnce, 1,
            "Asynchronous WriteTavrinStatus command failed with error: "},
        // Each log line waits twice before the request does.
        Row{"WaitForSingleObject", 2, 6, 0,
            "WaitForSingleObject unexpected return with error: 4294967295"},
        Row{"GetOverlappedResult", 0, 995, 0,
            "GetOverlappedResult failed for WriteTavrinStatus with error: 995"}}) {
    gate::FailNext(call, error, skip);
    EXPECT_EQ(WriteTavrinStatus(&up), result) << call;
    EXPECT_TRUE(Logged("Value 1 Size 4"));
    EXPECT_NE(Messages().find(line), std::string::npos) << line << "\n" << Messages();
  }
}

TEST_F(Request, CancelEndsTheWaitAndTheNextRequestWorks) {
  std::thread waiter = HeldStatusRequest();
  EXPECT_TRUE(platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr));
  waiter.join();
  EXPECT_EQ(status_, 9);
  EXPECT_TRUE(Logged("GetOverlappedResult failed for GetOrrinStatus with error: 995"));
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kCancel));
  EXPECT_FALSE(platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr)) << "none in flight";
  firmware_->SetVerdict(kStatusCode, 0);
  EXPECT_EQ(GetOrrinStatus(&status_), 0U);
  EXPECT_EQ(status_, 1);
}

TEST_F(Request, LostDeviceEndsTheWaitAndFailsLaterRequests) {
  std::thread waiter = HeldStatusRequest();
  firmware_->Drop();
  waiter.join();
  EXPECT_TRUE(Logged("GetOverlappedResult failed for GetOrrinStatus with error: 1167"));
  EXPECT_EQ(GetOrrinStatus(&status_), 1U);
  EXPECT_TRUE(Logged("Asynchronous GetOrrinStatus command failed with error: 1167"));
  CloseOrrinDevice();
  EXPECT_EQ(GetOrrinStatus(&status_), 1U);
  EXPECT_TRUE(Messages().ends_with("\nInvalid Handle\n"));
}

TEST_F(Request, ThreadEndedInARequestCancelsOnlyItsOwn) {
  std::thread waiter = HeldStatusRequest();
  firmware_->SetVerdict(kRegionCode, FirmwarePeer::kHold);
  platform::Thread thread =
      platform::CreateThread([](void*) { return DeAllocateKVM_KB_MB_Buffers(); }, nullptr);
  ASSERT_TRUE(firmware_->Await(kRegionCode));
  EndThread(&thread);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kCancel));
  EXPECT_TRUE(platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr)) << "the other one";
  waiter.join();
}

TEST_F(Request, ThreadsHaveRequestsInFlightAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) {
        std::uint8_t status = 0;
        EXPECT_EQ(GetOrrinStatus(&status), 0U);
        EXPECT_EQ(status, 1);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(firmware_->Requests().size(), 400U);
}

}  // namespace
}  // namespace stewardry
