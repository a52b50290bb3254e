// Packet framing: a six-byte header (uint32 total length including the header, uint16 command)
// and a payload of little-endian integers, length-prefixed strings and encoded addresses.
// Public header; the protocol code includes it.
//
// OutgoingPacket writes one packet straight into a connection's send buffer; IncomingPacket is a
// read cursor over one packet lying in the receive buffer. Both live on the stack of the loop's
// thread, one per packet.
#pragma once

#include <cassert>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "net/network_connection.h"
#include "protocol/connection_info.h"

/// Sizes of the header and the limits of its length field.
constexpr uint32_t PACKET_HEADER_SIZE = 6;
constexpr uint32_t MAXIMUM_PACKET_LENGTH = 268435456;

/// Compute the payload size first, then construct, then write exactly that much: the destructor
/// asserts that the two agree. No other write may touch the connection in between.
class NetworkConnection::OutgoingPacket {
 public:
  /// Reserves room for the whole packet and writes its header.
  OutgoingPacket(NetworkConnection* con, uint16_t command, uint32_t payloadSize);
  /// Tells the connection's loop (if any) that there is data, then checks the size.
  ~OutgoingPacket();
  OutgoingPacket(const OutgoingPacket&) = delete;
  OutgoingPacket& operator=(const OutgoingPacket&) = delete;

  template <typename T>
  void write(T value) {
    static_assert(std::is_integral_v<T>);
    writeBytes(&value, sizeof(T));  // little-endian hosts: memory order is wire order
  }

  void writeBytes(const void* data, size_t size) {
    if (size > 0) memcpy(con->sendWrite, data, size);
    con->sendWrite += size;
  }

  template <typename L>
  void writeString(const std::string& s) {
    assert(s.size() < (1ull << (8 * sizeof(L))));
    write<L>(static_cast<L>(s.size()));
    writeBytes(s.data(), s.size());
  }

  template <typename L>
  void writeString(const uint8_t* begin, const uint8_t* end) {
    const std::string_view s(reinterpret_cast<const char*>(begin), end - begin);
    assert(s.size() < (1ull << (8 * sizeof(L))));
    write<L>(static_cast<L>(s.size()));
    writeBytes(s.data(), s.size());
  }

  void writeStructure(const ConnectionInfo& info);
  void writeStructure(const std::vector<const ConnectionInfo*>& v);
  /// Encoded sizes, for the payload computation: 17 or 29 bytes per address, plus 4 for a list.
  static uint32_t structureSize(const ConnectionInfo& info);
  static uint32_t structureSize(const std::vector<const ConnectionInfo*>& v);

 private:
  void reserve(uint32_t needed);

  NetworkConnection* con;  // not owned
  uint8_t* expectedPacketEnd;
};

/// Reads never run past `end`: a field that doesn't fit logs one error per packet, fails the
/// connection and yields 0 or an empty value. A parser reads all its fields regardless and
/// dispatches only if complete().
class NetworkConnection::IncomingPacket {
 public:
  IncomingPacket(NetworkConnection* connection, const uint8_t* begin, const uint8_t* packetEnd)
      : con(connection), cursor(begin), end(packetEnd) {}

  template <typename T>
  T read() {
    static_assert(std::is_integral_v<T>);
    if (end - cursor < static_cast<ptrdiff_t>(sizeof(T))) return fail<T>(0);
    T value;
    memcpy(&value, cursor, sizeof(T));
    cursor += sizeof(T);
    return value;
  }

  template <typename L>
  std::string readString() {
    const L length = read<L>();
    if (failed) return std::string();
    if (end - cursor < static_cast<ptrdiff_t>(length)) return fail<std::string>(std::string());
    std::string value(reinterpret_cast<const char*>(cursor), length);
    cursor += length;
    return value;
  }

  /// The bytes from the cursor to the end of the packet; the cursor stays.
  std::string readRest();
  /// Tag 0 (no address) gives null without failing; unknown tags and short data fail.
  std::unique_ptr<ConnectionInfo> readStructurePointer();
  /// Every tag but 4 and 6 fails; a failure gives 0.0.0.0 port 0.
  ConnectionInfo readStructure();

  /// Logs "Incoming packet data would extend beyond packet." and fails the connection, both only
  /// the first time for this packet; returns `fallback`.
  template <typename T>
  T fail(T fallback) {
    if (!failed) {
      failed = true;
      logExtentError();
      con->failConnection();
    }
    return fallback;
  }

  /// Whether a parser may dispatch what it has read.
  bool complete() const { return !failed && cursor <= end; }

  NetworkConnection* con;  // not owned
  const uint8_t* cursor;
  const uint8_t* end;
  bool failed = false;

 private:
  void logExtentError();
  /// The tag of an address, or -1 if it didn't fit; a tag must not be the packet's last byte.
  int readAddressTag();
  /// The address behind tag 4 or 6; null, with `failed` set, for another tag or short data.
  std::unique_ptr<ConnectionInfo> readAddressBody(int tag);
};
