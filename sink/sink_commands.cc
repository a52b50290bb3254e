// The sink's parsers for the three commands an agent sends, plugged in behind the shared parser,
// which has no case for them. Each reads all its fields through IncomingPacket and acts only on
// a complete command.
#include <string_view>

#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "protocol/network_packet.h"
#include "sink/sink_connection.h"

namespace {

// `size` raw bytes in place, or an empty view and a failed packet if they run past its end.
std::string_view readBytes(NetworkConnection::IncomingPacket& packet, size_t size) {
  if (packet.failed) return {};
  if (packet.end - packet.cursor < static_cast<ptrdiff_t>(size)) {
    return packet.fail(std::string_view());
  }
  const std::string_view bytes(reinterpret_cast<const char*>(packet.cursor), size);
  packet.cursor += size;
  return bytes;
}

template <typename Cmd>
bool dispatch(NetworkCmdAcceptor& acceptor, const NetworkConnection::IncomingPacket& packet,
              Cmd&& cmd) {
  if (!packet.complete()) return false;
  acceptor(NetworkCommand(std::forward<Cmd>(cmd)));
  return true;
}

}  // namespace

bool SinkConnection::parseOtherCommand(uint16_t command, IncomingPacket& packet) {
  switch (command) {
    case CmdRegisterIngestContext::ID: {
      const uint8_t length = packet.read<uint8_t>();
      const std::string_view token = readBytes(packet, length);
      const uint32_t context = packet.read<uint32_t>();
      return dispatch(*handler, packet, CmdRegisterIngestContext{std::string(token), context});
    }
    case CmdIngestLogEvents::ID: {
      const uint32_t context = packet.read<uint32_t>();
      const uint64_t timestamp = packet.read<uint64_t>();
      const uint32_t count = packet.read<uint32_t>();
      // The count is the peer's claim: it is checked against the events that are there, and the
      // events go on as they lie in the packet, so a batch costs no memory beyond its bytes.
      const auto* events = reinterpret_cast<const char*>(packet.cursor);
      for (uint32_t i = 0; i < count && !packet.failed; ++i) {
        readBytes(packet, packet.read<uint16_t>());
      }
      if (!packet.complete()) return false;
      takeBatch(context, timestamp,
                WireEvents{events, reinterpret_cast<const char*>(packet.cursor), count});
      return true;
    }
    case CmdIngestConfig::ID: {
      CmdIngestConfig cmd{packet.read<uint32_t>(), {}, {}};
      const uint32_t integers = packet.read<uint32_t>();
      for (uint32_t i = 0; i < integers && !packet.failed; ++i) {
        std::string name = packet.readString<uint16_t>();
        const uint64_t value = packet.read<uint64_t>();
        cmd.integerOptions.insert_or_assign(std::move(name), value);
      }
      const uint32_t strings = packet.read<uint32_t>();
      for (uint32_t i = 0; i < strings && !packet.failed; ++i) {
        std::string name = packet.readString<uint16_t>();
        std::string value = packet.readString<uint16_t>();
        cmd.stringOptions.insert_or_assign(std::move(name), std::move(value));
      }
      return dispatch(*handler, packet, std::move(cmd));
    }
    default:
      return false;
  }
}
