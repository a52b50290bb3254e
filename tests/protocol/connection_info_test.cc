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
  const uintptr_t offset = reinterpret_cast<uintptr_t>(copyOfCopy.data.ai_addr) -
                           reinterpret_cast<uintptr_t>(&copyOfCopy);  // wraps if below it
  EXPECT_LE(offset, sizeof(ConnectionInfo) - sizeof(sockaddr_in6));
  EXPECT_EQ(copyOfCopy, resolved);  // the texts differ, but they don't count
  ConnectionInfo assigned;
  assigned = copyOfCopy;
  EXPECT_NE(assigned.data.ai_addr, copyOfCopy.data.ai_addr);
  EXPECT_EQ(assigned, copyOfCopy);
  // The port counts; the default is a real IPv4 address, 0.0.0.0 port 0.
  EXPECT_FALSE(loopbackInfo(9001, "a") == resolved);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  entry.ai_addr = reinterpret_cast<sockaddr*>(&any);
  EXPECT_EQ(ConnectionInfo(), ConnectionInfo(entry, {}));
}

TEST(ConnectionInfoDeathTest, MalformedValuesStopTheProcess) {
  signal(SIGCHLD, SIG_DFL);
  addrinfo tooLong{};  // stopped before its address is read
  tooLong.ai_addrlen = sizeof(sockaddr_in6) + 1;
  EXPECT_DEATH(ConnectionInfo(tooLong, ConnectionString()),
               "`data.ai_addrlen <= sizeof\\(sockaddr_in6\\)' failed");
  // A tag and a body one byte short of its family's address, or an unknown tag.
  const std::pair<std::string, std::string> serialized[] = {
      {"", "`str.size\\(\\) > 0' failed"},
      {std::string(1, 4) + std::string(15, 0), "== 1 \\+ sizeof\\(sockaddr_in\\)' failed"},
      {std::string(1, 6) + std::string(16, 0), "== 1 \\+ sizeof\\(sockaddr_in6\\)' failed"},
      {std::string(17, 5), "`false' failed"}};
  for (const auto& [bytes, message] : serialized)
    EXPECT_DEATH(SerializedConnectionInfo{bytes}, message) << bytes.size() << " bytes";
}

}  // namespace
