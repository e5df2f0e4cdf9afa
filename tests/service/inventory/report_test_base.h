// A host with a firmware behind its mailbox, for what the inventory sends.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "service/inventory/records.h"
#include "service/mailbox/device.h"
#include "service/mailbox/messages.h"
#include "tests/firmware_peer.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {

// Control codes of the report's messages.
constexpr std::uint32_t kWriteStatus = 0x9C41A410;
constexpr std::uint32_t kReadVersion = 0x9C416424;
constexpr std::uint32_t kWriteBooted = 0x9C41A428;
constexpr std::uint32_t kWriteOs = 0x9C41A42C;
constexpr std::uint32_t kWriteIp = 0x9C41A430;
constexpr std::uint32_t kWriteNetwork = 0x9C41A438;

class ReportTest : public InventoryTest {
 protected:
  void SetUp() override {
    InventoryTest::SetUp();
    gTavrinVersionInfo.Store({});
    StartFirmware("7.1");
  }
  void TearDown() override {
    CloseOrrinDevice();
    firmware_.reset();
    InventoryTest::TearDown();
  }

  // A firmware that tells `version`, and the mailbox open to it.
  void StartFirmware(const std::string& version) {
    CloseOrrinDevice();
    firmware_.reset();
    firmware_ = std::make_unique<FirmwarePeer>(lab(), version);
    ASSERT_EQ(OpenOrrinDevice(kRequestMode), 0U);
    StartServiceLog();
    platform::gate::Arm();
  }

  using Codes = std::vector<std::uint32_t>;
  Codes Sent() { return firmware_->Codes(); }

  // The n-th message sent, as the record that it is.
  template <class Record>
  Record Message(std::size_t n) {
    const std::vector<Asked> requests = firmware_->Requests();
    Record record{};
    EXPECT_LT(n, requests.size());
    if (n >= requests.size()) return record;
    EXPECT_EQ(requests[n].input.size(), sizeof record);
    std::memcpy(&record, requests[n].input.data(),
                std::min(sizeof record, requests[n].input.size()));
    return record;
  }

  std::unique_ptr<FirmwarePeer> firmware_;
};

}  // namespace stewardry
