#include "protocol/connection_info.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <new>

#include "tests/support/address_helpers.h"

namespace {

TEST(ConnectionInfoCopies, OwnTheirAddressAndCompareByIt) {
  // Made over memory full of ones, from a resolver's entry or as the default: never a list.
  const ConnectionInfo resolved = loopbackInfo(9000, "a");
  addrinfo entry = resolved.data;
  entry.ai_canonname = reinterpret_cast<char*>(&entry);  // never read, only not to be copied
  entry.ai_next = &entry;
  alignas(ConnectionInfo) unsigned char storage[sizeof(ConnectionInfo)];
  for (bool fromEntry : {false, true}) {
    memset(storage, 0xff, sizeof(storage));
    auto* made =
        fromEntry ? new (storage) ConnectionInfo(entry, {}) : new (storage) ConnectionInfo();
    EXPECT_TRUE(made->data.ai_next == nullptr && made->data.ai_canonname == nullptr) << fromEntry;
    made->~ConnectionInfo();
  }
  // A copy of a copy points into its own storage and outlives what it was copied from.
  const ConnectionInfo copyOfCopy = [&] {
    const ConnectionInfo original(entry, {}), copy(original);
    return ConnectionInfo(copy);
  }();
  const auto* self = reinterpret_cast<const uint8_t*>(&copyOfCopy);
  const auto* addr = reinterpret_cast<const uint8_t*>(copyOfCopy.data.ai_addr);
  EXPECT_TRUE(addr >= self && addr + sizeof(sockaddr_in6) <= self + sizeof(ConnectionInfo));
  EXPECT_EQ(copyOfCopy, resolved);  // the texts differ, but they don't count
  ConnectionInfo assigned;
  assigned = copyOfCopy;
  EXPECT_NE(assigned.data.ai_addr, copyOfCopy.data.ai_addr);
  EXPECT_EQ(assigned, copyOfCopy);
  // The port counts; the default is a real IPv4 address, 0.0.0.0 port 0.
  EXPECT_FALSE(loopbackInfo(9001, "a") == resolved);
  EXPECT_EQ(testing::PrintToString(loopbackInfo(80, "::1")), "::1:80");  // the name, no brackets
  sockaddr_in any{};
  any.sin_family = AF_INET;
  entry.ai_addr = reinterpret_cast<sockaddr*>(&any);
  EXPECT_EQ(ConnectionInfo(), ConnectionInfo(entry, {}));
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
}

}  // namespace
