#include "protocol/connection_info.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <sstream>

namespace {

ConnectionInfo ipv4(const char* text, uint16_t port, const ConnectionString& name) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, text, &address.sin_addr);
  addrinfo entry{};
  entry.ai_family = AF_INET;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addrlen = sizeof(address);
  entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
  return ConnectionInfo(entry, name);
}

TEST(ConnectionAddressText, NumericAddressesAsTheClusterPrintsThem) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(9000);
  inet_pton(AF_INET, "127.0.0.1", &v4.sin_addr);
  EXPECT_EQ(ConnectionString(v4), ConnectionString("127.0.0.1", "9000"));

  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(443);
  v6.sin6_addr = in6addr_loopback;
  const ConnectionString loopback(v6);
  EXPECT_EQ(loopback.host, "00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01");
  EXPECT_EQ(loopback.host.size(), 47u);
  EXPECT_EQ(loopback.port, "443");

  // A name stays the name, whichever address it resolved to; no brackets either.
  std::ostringstream text;
  text << ipv4("10.1.2.3", 80, ConnectionString("ingest.example", "https")) << " "
       << ConnectionInfo(ipv4("10.1.2.3", 80, ConnectionString("::1", "80")));
  EXPECT_EQ(text.str(), "ingest.example:https ::1:80");
}

TEST(ConnectionAddressText, OrderByHostThenPortBytewise) {
  EXPECT_LT(ConnectionString("a", "b"), ConnectionString("a", "c"));
  EXPECT_LT(ConnectionString("a", "z"), ConnectionString("ab", "a"));
  EXPECT_LT(ConnectionString("a", "9"), ConnectionString("a", "90"));
  EXPECT_LT(ConnectionString("z", "1"), ConnectionString("\xc3\xa9", "1"));  // bytes, unsigned
}

TEST(ConnectionInfoCopies, OwnTheirAddressAndCompareByIt) {
  auto original =
      std::make_unique<ConnectionInfo>(ipv4("192.0.2.7", 9000, ConnectionString("a", "1")));
  auto copy = std::make_unique<ConnectionInfo>(*original);
  const ConnectionInfo copyOfCopy(*copy);
  original.reset();
  copy.reset();
  const auto* self = reinterpret_cast<const uint8_t*>(&copyOfCopy);
  const auto* addr = reinterpret_cast<const uint8_t*>(copyOfCopy.data.ai_addr);
  EXPECT_TRUE(addr >= self && addr + sizeof(sockaddr_in6) <= self + sizeof(ConnectionInfo));
  EXPECT_EQ(copyOfCopy.data.ai_next, nullptr);
  const auto* address = reinterpret_cast<const sockaddr_in*>(copyOfCopy.data.ai_addr);
  EXPECT_EQ(ConnectionString(*address), ConnectionString("192.0.2.7", "9000"));

  ConnectionInfo assigned;
  assigned = copyOfCopy;
  EXPECT_NE(assigned.data.ai_addr, copyOfCopy.data.ai_addr);
  EXPECT_EQ(assigned, copyOfCopy);

  // Texts don't count, the port does.
  EXPECT_EQ(ipv4("192.0.2.7", 9000, ConnectionString("x", "y")), copyOfCopy);
  EXPECT_FALSE(ipv4("192.0.2.7", 9001, ConnectionString("a", "1")) == copyOfCopy);
}

TEST(ConnectionInfoDeathTest, MalformedValuesStopTheProcess) {
  signal(SIGCHLD, SIG_DFL);
  addrinfo tooLong{};
  sockaddr_storage storage{};
  tooLong.ai_addr = reinterpret_cast<sockaddr*>(&storage);
  tooLong.ai_addrlen = sizeof(sockaddr_in6) + 1;
  EXPECT_DEATH(ConnectionInfo(tooLong, ConnectionString()),
               "`data.ai_addrlen <= sizeof\\(sockaddr_in6\\)' failed");

  EXPECT_DEATH(SerializedConnectionInfo(""), "`str.size\\(\\) > 0' failed");
  EXPECT_DEATH(SerializedConnectionInfo(std::string(1, 4) + std::string(15, 0)),
               "`size\\(\\) == 1 \\+ sizeof\\(sockaddr_in\\)' failed");
  EXPECT_DEATH(SerializedConnectionInfo(std::string(1, 6) + std::string(16, 0)),
               "`size\\(\\) == 1 \\+ sizeof\\(sockaddr_in6\\)' failed");
  EXPECT_DEATH(SerializedConnectionInfo(std::string(17, 5)), "`false' failed");
  EXPECT_EQ(SerializedConnectionInfo(std::string(1, 6) + std::string(28, 0)).size(), 29u);
}

}  // namespace
