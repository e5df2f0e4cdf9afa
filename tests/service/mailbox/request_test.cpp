// The request pattern and the messages on it.
#include "service/mailbox/request.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "platform/event.h"
#include "service/mailbox/firmware_log.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

class Request : public MailboxTest {};

constexpr std::uint32_t kStatusCode = ControlCodeFor(Operation::kGetOrrinStatus).code;
constexpr std::uint32_t kCloseCode = ControlCodeFor(Operation::kSendCloseSocketcmd).code;

TEST_F(Request, EachMessageCarriesItsCodeAndItsBytes) {
  OpenMailbox();
  const std::uint32_t up = kServiceUp, fan = 0x01020304;
  SensorInfo sensor{};
  sensor.bytes[31] = 9;
  char dash[] = "tls bytes";
  packet data{1, dash, 9, nullptr, 77};
  EXPECT_EQ(WriteTavrinStatus(&up), 0U);
  SendCloseSocketcmd(664);
  SendNetworkStatus(kNetworkWlan);
  WriteFanInfo(&fan);
  WriteSensorInfo(&sensor);
  EXPECT_EQ(WriteDASHPacket(&data), 0U);
  EXPECT_EQ(data.replySize, 0U);
  EXPECT_EQ(WriteKVMPacket(&data), 0U);
  EXPECT_EQ(DeAllocateKVM_KB_MB_Buffers(), 0U);
  EXPECT_EQ(SetS5Status(), 0U);
  const std::vector<Asked> expected = {{0x9C41A410, {"\x01\0\0\0", 4}},
                                       {0x9C41A434, "\x98\x02"},
                                       {0x9C41A428, {"\x02\0\0\0", 4}},
                                       {0x9C41A440, "\x04\x03\x02\x01"},
                                       {0x9C41A444, std::string(31, '\0') + '\x09'},
                                       {0x9C41A400, "tls bytes"},
                                       {0x9C41A43D, "tls bytes"},
                                       {0x9C416454, ""},
                                       {0x9C41A460, {"\x02\0", 2}}};
  const std::vector<Asked> sent = firmware_->Requests();
  ASSERT_EQ(sent.size(), expected.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].code, expected[i].code) << i;
    EXPECT_EQ(sent[i].input, expected[i].input) << i;
  }
  EXPECT_TRUE(Logged("Value 1 Size 4"));
  EXPECT_TRUE(Logged("SensorInfo size:32"));
}

TEST_F(Request, ReadsTakeTheAnswerAndAFailureChangesNothing) {
  OpenMailbox();
  std::uint8_t status = 0;
  firmware_->SetStatus(2);
  EXPECT_EQ(GetOrrinStatus(&status), 0U);
  EXPECT_EQ(status, 2);
  EXPECT_TRUE(Logged("Asynchronous IO completed for GetOrrinStatus readbytes is 1"));
  GetTavrinVersion(&gTavrinVersionInfo);
  EXPECT_STREQ(gTavrinVersionInfo.Load().version, "7.1");
  firmware_->SetVerdict(kStatusCode, 31);
  EXPECT_EQ(GetOrrinStatus(&status), 0U);  // started, whatever came of it
  EXPECT_EQ(status, 2);
  EXPECT_TRUE(Logged("GetOverlappedResult failed for GetOrrinStatus with error: 31"));
}

TEST_F(Request, TheLogRingsAddressIsKeptUntilItIsGivenBack) {
  OpenMailbox();
  firmware_->SetVerdict(ControlCodeFor(Operation::kWriteLogBuffer).code, 31);
  EXPECT_EQ(WriteLogBuffer(), 0U);
  EXPECT_EQ(gLogBufferAddress.load(), 0U);
  firmware_->SetVerdict(ControlCodeFor(Operation::kWriteLogBuffer).code, 0);
  firmware_->SetAnswer(ControlCodeFor(Operation::kWriteLogBuffer).code, std::string(8, 'a'));
  EXPECT_EQ(WriteLogBuffer(), 0U);
  EXPECT_NE(gLogBufferAddress.load(), 0U);  // the mailbox end puts its own address there
  firmware_->SetAnswer(ControlCodeFor(Operation::kDeAllocateLogBuffer).code, std::string(8, '\0'));
  EXPECT_EQ(DeAllocateLogBuffer(), 0U);
  EXPECT_EQ(gLogBufferAddress.load(), 0U);
}

// A version text without an end must stop at its field.
TEST_F(Request, AVersionWithoutAnEndStopsAtItsField) {
  firmware_.reset();
  firmware_ = std::make_unique<FirmwarePeer>(lab(), std::string(80, 'v'));
  OpenMailbox();
  GetTavrinVersion(&gTavrinVersionInfo);
  EXPECT_EQ(std::strlen(gTavrinVersionInfo.Load().version), 63U);
  EXPECT_TRUE(Logged("Read data is " + std::string(63, 'v')));
  gTavrinVersionInfo.Store({});
}

TEST_F(Request, WithoutAHandleEachOperationSaysItsOwnLine) {
  const std::uint32_t up = kServiceUp;
  packet data{};
  std::uint8_t status = 7;
  EXPECT_EQ(WriteTavrinStatus(&up), 1U);
  EXPECT_EQ(WriteDASHPacket(&data), 1U);
  EXPECT_EQ(GetOrrinStatus(&status), 1U);
  GetTavrinVersion(&gTavrinVersionInfo);
  WriteOsInfo(nullptr);
  EXPECT_EQ(SetS5Status(), 1U);
  EXPECT_EQ(Messages(),
            "Value 1 Size 4\nInvalid handle\nError Invalid Handle\nInvalid Handle\nFailed\n"
            "OperationSysSInfo size:804\nFailed: Invalid handle\n"
            "Error calling IOCTL: IOCTL_CORVANE_SET_S5_STATUS\n");
}

TEST_F(Request, AFailedStepHasTheOperationsWording) {
  struct Row {
    const char* call;
    std::uint32_t error;
    const char* line;
    std::uint32_t result;
  };
  constexpr Row kRows[] = {
      {"CreateEventA", 8, "Error creating overlapped event for interrupt thread - with error: 8",
       1},
      {"DeviceIoControl", 21, "Asynchronous WriteTavrinStatus command failed with error: 21", 1},
      {"GetOverlappedResult", 995,
       "GetOverlappedResult failed for WriteTavrinStatus with error: 995", 0},
  };
  OpenMailbox();
  const std::uint32_t up = kServiceUp;
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, row.error);
    EXPECT_EQ(WriteTavrinStatus(&up), row.result) << row.call;
    EXPECT_TRUE(Logged(row.line)) << row.line << "\n" << Messages();
  }
  // The log's own wait comes first in each line, so the request's wait is the one behind it.
  gate::Arm();
  gate::FailNext("WaitForSingleObject", 6, 1);
  EXPECT_EQ(WriteTavrinStatus(&up), 0U);
  EXPECT_TRUE(Logged("WaitForSingleObject unexpected return with error: 4294967295"));
  gate::Arm();
  gate::FailNext("DeviceIoControl", 21);
  SendCloseSocketcmd(22);
  EXPECT_TRUE(Logged("Asynchronous SendCloseSocketcmd command failed with erro: 21"));
}

// A driver that finishes a request at once has the data, but the request counts as failed.
TEST_F(Request, ARequestThatFinishesAtOnceCountsAsFailed) {
  OpenMailbox();
  gate::FailNext("DeviceIoControl", gate::kFinishAtOnce);
  const std::uint32_t up = kServiceUp;
  EXPECT_EQ(WriteTavrinStatus(&up), 1U);
  EXPECT_NE(Messages().find("Asynchronous WriteTavrinStatus command failed with error: "),
            std::string::npos);
  EXPECT_EQ(WriteTavrinStatus(&up), 0U);
}

TEST_F(Request, ACancelEndsTheWaitAndTheNextRequestWorks) {
  OpenMailbox();
  firmware_->SetVerdict(kStatusCode, FirmwarePeer::kHold);
  std::uint8_t status = 9;
  std::thread waiter([&] { EXPECT_EQ(GetOrrinStatus(&status), 0U); });
  ASSERT_TRUE(firmware_->Await(kStatusCode));
  EXPECT_TRUE(platform::CancelIoEx(*gRequestDevice, nullptr));
  waiter.join();
  EXPECT_EQ(status, 9);
  EXPECT_TRUE(Logged("GetOverlappedResult failed for GetOrrinStatus with error: 995"));
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kCancel));
  firmware_->SetVerdict(kStatusCode, 0);
  EXPECT_EQ(GetOrrinStatus(&status), 0U);
  EXPECT_EQ(status, 1);
}

TEST_F(Request, ADeviceThatGoesAwayEndsTheWaitAndFailsWhatComesLater) {
  OpenMailbox();
  firmware_->SetVerdict(kStatusCode, FirmwarePeer::kHold);
  std::uint8_t status = 9;
  std::thread waiter([&] { GetOrrinStatus(&status); });
  ASSERT_TRUE(firmware_->Await(kStatusCode));
  firmware_->Drop();
  waiter.join();
  EXPECT_TRUE(Logged("GetOverlappedResult failed for GetOrrinStatus with error: 1167"));
  EXPECT_EQ(GetOrrinStatus(&status), 1U);
  EXPECT_TRUE(Logged("Asynchronous GetOrrinStatus command failed with error: 1167"));
}

// A thread that is ended inside a request takes its record and event with it.
TEST_F(Request, AThreadEndedInARequestCancelsIt) {
  OpenMailbox();
  firmware_->SetVerdict(kCloseCode, FirmwarePeer::kHold);
  platform::Thread thread = platform::CreateThread(
      [](void*) -> std::uint32_t {
        SendCloseSocketcmd(664);
        return 0;
      },
      nullptr);
  ASSERT_TRUE(firmware_->Await(kCloseCode));
  EndThread(&thread);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kCancel));
}

TEST_F(Request, ManyThreadsHaveRequestsInFlightAtOnce) {
  OpenMailbox();
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
