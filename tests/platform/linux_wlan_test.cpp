// The wireless service's stand-in: when it is there, and what it hears.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/linux/gate.h"
#include "platform/wlan.h"
#include "tests/lab_folder_fixture.h"

namespace platform {
namespace {

class LinuxWlanTest : public LabTest {
 protected:
  void TearDown() override {
    for (const char* name : {"adapters.txt", "wlan.txt"}) std::filesystem::remove(LabPath(name));
    LabTest::TearDown();
  }
  static void Put(const char* name, const char* text) { std::ofstream(LabPath(name)) << text; }
  static bool Inject(const std::string& text) {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, LabPath("wlan").c_str(), sizeof address.sun_path - 1);
    const ssize_t sent = ::sendto(socket, text.data(), text.size(), 0,
                                  reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::close(socket);
    return sent == static_cast<ssize_t>(text.size());
  }
};

struct Heard {
  std::mutex lock;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> all;  // guarded by lock
};

void Hear(const WlanNotification& data, void* context) {
  auto* heard = static_cast<Heard*>(context);
  std::lock_guard guard(heard->lock);
  heard->all.emplace_back(data.source, data.code);
}

bool HasHeard(Heard* heard, std::size_t count) {
  for (int i = 0; i < 6000; ++i) {
    {
      std::lock_guard guard(heard->lock);
      if (heard->all.size() >= count) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST_F(LinuxWlanTest, ServiceIsThereWithoutAWirelessInterface) {
  WlanHandle handle = nullptr;
  Put("adapters.txt", "eth0\n");
  EXPECT_EQ(WlanOpenHandle(&handle), static_cast<std::uint32_t>(kErrorServiceNotActive));
  EXPECT_EQ(handle, nullptr);
  Put("adapters.txt", "eth0\nwlan0 wireless\nwlan1 wireless down\n");
  ASSERT_EQ(WlanOpenHandle(&handle), 0U);
  WlanInterfaceList list;
  EXPECT_EQ(WlanEnumInterfaces(handle, &list), 0U);
  EXPECT_EQ(list.states, (std::vector<std::uint32_t>{1, 4}));
  Put("wlan.txt", "7\n1\n99\n");
  EXPECT_EQ(WlanEnumInterfaces(handle, &list), 0U);
  EXPECT_EQ(list.states, (std::vector<std::uint32_t>{7, 1, 99}));
  EXPECT_NE(WlanEnumInterfaces(nullptr, &list), 0U);
  EXPECT_NE(WlanRegisterNotification(nullptr, 8, Hear, nullptr), 0U);
}

TEST_F(LinuxWlanTest, InjectedChangeIsLostOrGoesToAnOldListener) {
  static Heard first, second;  // the listener keeps the last of them for good
  for (Heard* heard : {&first, &second}) {
    std::lock_guard guard(heard->lock);
    heard->all.clear();
  }
  WlanHandle handle = nullptr;
  Put("wlan.txt", "1\n");
  ASSERT_EQ(WlanOpenHandle(&handle), 0U);
  ASSERT_EQ(WlanRegisterNotification(handle, kWlanNotificationSourceAcm, Hear, &first), 0U);
  for (const char* text : {"connected", "disconnected\n", "16 3", "8", "", "rubbish 1"})
    EXPECT_TRUE(Inject(text)) << text;
  EXPECT_TRUE(Inject("8 10"));
  ASSERT_TRUE(HasHeard(&first, 4));
  ASSERT_EQ(WlanRegisterNotification(handle, kWlanNotificationSourceAcm, Hear, &second), 0U);
  EXPECT_TRUE(Inject("disconnected"));
  ASSERT_TRUE(HasHeard(&second, 1));
  std::lock_guard guard(first.lock);
  EXPECT_EQ(first.all, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{
                           {8, 10}, {8, 21}, {16, 3}, {8, 10}}));
}

}  // namespace
}  // namespace platform
