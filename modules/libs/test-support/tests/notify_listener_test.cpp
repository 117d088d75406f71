#include "xpon/test/notify_listener.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace xpon::test {
namespace {

std::string temporary_socket_path() {
  std::string pattern = (std::filesystem::temp_directory_path() / "notify-XXXXXX").string();
  const char* made = ::mkdtemp(pattern.data());
  EXPECT_NE(made, nullptr);
  return pattern + "/notify.sock";
}

TEST(NotifyListener, ReceivesSdNotifyMessagesInOrder) {
  NotifyListener listener(temporary_socket_path());
  ::setenv("NOTIFY_SOCKET", listener.path().c_str(), 1);
  ASSERT_GT(::sd_notify(0, "STATUS=Startup system manager..."), 0);
  ASSERT_GT(::sd_notify(0, "READY=1\nSTATUS=Processing requests...\n"), 0);
  ::unsetenv("NOTIFY_SOCKET");
  const auto messages = listener.wait_for(2, std::chrono::seconds(2));
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0], "STATUS=Startup system manager...");
  EXPECT_EQ(messages[1], "READY=1\nSTATUS=Processing requests...\n");
  EXPECT_TRUE(listener.wait_for_text("READY=1\nSTATUS=Processing requests...\n", std::chrono::milliseconds(10), 1));
  EXPECT_FALSE(listener.wait_for_text("READY=1\nSTATUS=Processing requests...\n", std::chrono::milliseconds(10), 2));
}

TEST(NotifyListener, WaitForGivesUpAfterTheTimeOut) {
  NotifyListener listener(temporary_socket_path());
  EXPECT_TRUE(listener.wait_for(1, std::chrono::milliseconds(20)).empty());
}

}  // namespace
}  // namespace xpon::test
