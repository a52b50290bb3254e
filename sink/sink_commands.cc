// The sink's parsers for the three commands an agent sends, plugged in behind the shared parser,
// which has no case for them. Each reads all its fields through IncomingPacket and dispatches
// only a complete command.
#include <string_view>
#include <vector>

#include "net/network_connection.h"
#include "protocol/network_command.h"
#include "protocol/network_packet.h"
#include "sink/sink_connection.h"

namespace {

// The events of one batch point into the receive buffer. One vector serves every packet of
// every connection: parsing is synchronous on the main thread, so it is free again as soon as
// the handler returns, and once grown it spares the steady state an allocation per packet.
std::vector<EphemeralLogEvent> batchEvents;
// An agent's batch has at most 256 events; a vector grown far beyond that for a packet of many
// tiny events gives its memory back after it.
constexpr size_t KEPT_BATCH_EVENTS = 4096;

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
      // The count is the peer's claim: events are appended only while their bytes are there,
      // so a lying count fails the packet instead of reserving memory for it.
      batchEvents.clear();
      while (batchEvents.size() < count && !packet.failed) {
        const uint16_t length = packet.read<uint16_t>();
        const std::string_view bytes = readBytes(packet, length);
        if (packet.failed) break;
        const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
        batchEvents.push_back(EphemeralLogEvent{begin, begin + bytes.size()});
      }
      const bool dispatched = dispatch(
          *handler, packet, CmdIngestLogEvents{context, timestamp, batchEvents.data(), count});
      if (batchEvents.capacity() > KEPT_BATCH_EVENTS) std::vector<EphemeralLogEvent>().swap(batchEvents);
      return dispatched;
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
