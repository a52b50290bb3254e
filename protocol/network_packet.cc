#include "protocol/network_packet.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cassert>
#include <cstring>

namespace {

constexpr uint64_t INITIAL_SEND_BUFFER_SIZE = 65536;
constexpr uint8_t IPV4_TAG = 4;
constexpr uint8_t IPV6_TAG = 6;

}  // namespace

NetworkConnection::OutgoingPacket::OutgoingPacket(NetworkConnection* connection, uint16_t command,
                                                  uint32_t payloadSize)
    : con(connection) {
  const uint32_t total = payloadSize + PACKET_HEADER_SIZE;
  reserve(total);
  uint8_t* header = con->sendWrite;
  write<uint32_t>(total);
  write<uint16_t>(command);
  expectedPacketEnd = header + total;
}

NetworkConnection::OutgoingPacket::~OutgoingPacket() {
  // Without a loop the packet waits in the buffer until the connection is registered.
  if (con->loop) con->epollListen();
  assert(con->sendWrite == expectedPacketEnd);
}

void NetworkConnection::OutgoingPacket::reserve(uint32_t needed) {
  NetworkConnection& c = *con;
  auto room = [&c] {
    return static_cast<int64_t>(c.sendBuffer.get() + c.sendBufferSize - c.sendWrite);
  };
  if (!c.sendBuffer) {
    c.sendBuffer = std::make_unique_for_overwrite<uint8_t[]>(INITIAL_SEND_BUFFER_SIZE);
    c.sendBufferSize = INITIAL_SEND_BUFFER_SIZE;
    c.sendRead = c.sendWrite = c.sendBuffer.get();
    if (needed <= INITIAL_SEND_BUFFER_SIZE) return;
  } else {
    if (room() >= needed) return;
    // Reclaim what the socket has taken before asking for more memory.
    if (c.sendRead != c.sendBuffer.get()) {
      const size_t unread = c.sendWrite - c.sendRead;
      memmove(c.sendBuffer.get(), c.sendRead, unread);
      c.sendRead = c.sendBuffer.get();
      c.sendWrite = c.sendRead + unread;
      if (room() >= needed) return;
    }
  }
  while (room() < needed) {
    const uint64_t newSize = 2 * c.sendBufferSize;
    auto newBuffer = std::make_unique_for_overwrite<uint8_t[]>(newSize);
    const size_t unread = c.sendWrite - c.sendRead;
    memcpy(newBuffer.get(), c.sendRead, unread);
    c.sendBuffer = std::move(newBuffer);
    c.sendBufferSize = newSize;
    c.sendRead = c.sendBuffer.get();
    c.sendWrite = c.sendRead + unread;
  }
}

void NetworkConnection::OutgoingPacket::writeStructure(const ConnectionInfo& info) {
  assert(info.data.ai_protocol == 0 || info.data.ai_protocol == IPPROTO_TCP);
  if (info.data.ai_family == AF_INET6) {
    write<uint8_t>(IPV6_TAG);
    assert(info.data.ai_addrlen == sizeof(sockaddr_in6));
    writeBytes(info.data.ai_addr, sizeof(sockaddr_in6));
  } else if (info.data.ai_family == AF_INET) {
    write<uint8_t>(IPV4_TAG);
    assert(info.data.ai_addrlen == sizeof(sockaddr_in));
    writeBytes(info.data.ai_addr, sizeof(sockaddr_in));
  } else {
    assert(false);
  }
}

void NetworkConnection::OutgoingPacket::writeStructure(
    const std::vector<const ConnectionInfo*>& v) {
  write<uint32_t>(static_cast<uint32_t>(v.size()));
  for (size_t i = 0; i < v.size(); ++i) {
    assert(v[i]->data.ai_protocol == 0 || v[i]->data.ai_protocol == IPPROTO_TCP);
    if (v[i]->data.ai_family == AF_INET6) {
      write<uint8_t>(IPV6_TAG);
      assert(v[i]->data.ai_addrlen == sizeof(sockaddr_in6));
      writeBytes(v[i]->data.ai_addr, sizeof(sockaddr_in6));
    } else if (v[i]->data.ai_family == AF_INET) {
      write<uint8_t>(IPV4_TAG);
      assert(v[i]->data.ai_addrlen == sizeof(sockaddr_in));
      writeBytes(v[i]->data.ai_addr, sizeof(sockaddr_in));
    } else {
      assert(false);
    }
  }
}

uint32_t NetworkConnection::OutgoingPacket::structureSize(const ConnectionInfo& info) {
  // The size follows the family alone; an address writeStructure can't encode stops it there.
  return 1 + (info.data.ai_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
}

uint32_t NetworkConnection::OutgoingPacket::structureSize(
    const std::vector<const ConnectionInfo*>& v) {
  uint32_t size = sizeof(uint32_t);
  for (const ConnectionInfo* info : v) size += structureSize(*info);
  return size;
}

std::string NetworkConnection::IncomingPacket::readRest() {
  if (cursor > end) return fail<std::string>(std::string());
  return std::string(reinterpret_cast<const char*>(cursor), end - cursor);
}

void NetworkConnection::IncomingPacket::logExtentError() {
  error(con->log) << "Incoming packet data would extend beyond packet." << std::endl;
}

int NetworkConnection::IncomingPacket::readAddressTag() {
  const uint8_t tag = read<uint8_t>();
  if (failed) return -1;
  if (cursor >= end) fail<int>(0);
  return tag;
}

std::unique_ptr<ConnectionInfo> NetworkConnection::IncomingPacket::readAddressBody(int tag) {
  if (tag != IPV4_TAG && tag != IPV6_TAG) {
    failed = true;  // logged, if at all, by whoever looks at the parse's result
    return nullptr;
  }
  const size_t size = tag == IPV6_TAG ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  const uint8_t* bytes = cursor;
  cursor += size;  // even past the end: the parser's final check sees it
  if (failed || cursor > end) {
    failed = true;
    return nullptr;
  }
  addrinfo entry{};
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addrlen = static_cast<socklen_t>(size);
  if (tag == IPV6_TAG) {
    sockaddr_in6 address;
    memcpy(&address, bytes, size);
    entry.ai_family = AF_INET6;
    entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
    return std::make_unique<ConnectionInfo>(entry, ConnectionString(address));
  }
  sockaddr_in address;
  memcpy(&address, bytes, size);
  entry.ai_family = AF_INET;
  entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
  return std::make_unique<ConnectionInfo>(entry, ConnectionString(address));
}

std::unique_ptr<ConnectionInfo> NetworkConnection::IncomingPacket::readStructurePointer() {
  const int tag = readAddressTag();
  if (tag < 0) return nullptr;
  if (tag == 0) return nullptr;  // no address present
  std::unique_ptr<ConnectionInfo> info = readAddressBody(tag);
  return info ? std::move(info) : std::make_unique<ConnectionInfo>();
}

ConnectionInfo NetworkConnection::IncomingPacket::readStructure() {
  const int tag = readAddressTag();
  if (tag < 0) return ConnectionInfo();
  std::unique_ptr<ConnectionInfo> info = readAddressBody(tag);
  return info ? *info : ConnectionInfo();
}

uint32_t NetworkConnection::maximumPacketLength() const {
  return MAXIMUM_PACKET_LENGTH;
}

// The incoming packet loop: whole packets are cut out of the receive buffer and parsed where they
// lie.
void NetworkConnection::parseRecvBuffer() {
  int64_t available = recvWrite - recvRead;
  assert(available >= 0);
  while (available >= 4) {
    uint32_t length;
    memcpy(&length, recvRead, sizeof(length));
    if (length < PACKET_HEADER_SIZE) {
      error(log) << "Received packet too small (" << length << "), terminating connection"
                 << std::endl;
      failConnection();
      return;
    }
    if (length > maximumPacketLength()) {
      error(log) << "Received package too large (" << length << "), terminating connection"
                 << std::endl;
      failConnection();
      return;
    }
    // Make the whole packet fit as soon as its header is known, so it can be parsed in place.
    if (length >= READ_ROOM) growRecvBuffer(length);
    if (available < length) return;

    uint16_t command;
    memcpy(&command, recvRead + 4, sizeof(command));
    if (!handler) {
      error(log) << "Received " << command << " packet of length " << length
                 << ", but no handler set." << std::endl;
    } else if (!isAccepted(command)) {
      error(log) << "Received unaccepted command: " << command << std::endl;
      failConnection();
      return;
    } else {
      IncomingPacket packet(this, recvRead + PACKET_HEADER_SIZE, recvRead + length);
      if (!parseCommand(command, packet) && !parseOtherCommand(command, packet)) {
        error(log) << "Failed to parse incoming command: " << command << std::endl;
        failConnection();
        return;
      }
    }
    // A handler may have sent or grown the buffer: recvRead is read anew, never kept across.
    recvRead += length;
    available = recvWrite - recvRead;
    assert(available >= 0);
  }
}
