#include "protocol/network_command.h"

#include <cassert>
#include <cstring>

#include "app/drover_stubs.h"
#include "net/network_connection.h"
#include "protocol/network_packet.h"

void NetworkConnection::setHandler(std::unique_ptr<NetworkCmdAcceptor> acceptor) {
  handler = std::move(acceptor);
  acceptedCommands.reset();
  extendedAcceptedCommands.clear();
  if (!handler) return;
  const CommandSet accepted = handler->acceptedCommands();
  for (size_t id = 0; id < acceptedCommands.size(); ++id) {
    acceptedCommands[id] = (accepted.words[id / 64] >> (id % 64)) & 1;
  }
  extendedAcceptedCommands = accepted.extended;
}

bool NetworkConnection::isAccepted(uint16_t command) const {
  if (command < acceptedCommands.size()) return acceptedCommands[command];
  const size_t offset = command - acceptedCommands.size();
  if (offset / 64 >= extendedAcceptedCommands.size()) return false;
  return (extendedAcceptedCommands[offset / 64] >> (offset % 64)) & 1;
}

void CommandSet::insert(uint16_t id) {
  if (id < 256) {
    words[id / 64] |= 1ull << (id % 64);
    return;
  }
  const size_t index = (id - 256u) / 64;
  if (extended.size() <= index) extended.resize(index + 1, 0);
  extended[index] |= 1ull << ((id - 256u) % 64);
}

bool CommandSet::contains(uint16_t id) const {
  if (id < 256) return (words[id / 64] >> (id % 64)) & 1;
  const size_t index = (id - 256u) / 64;
  return index < extended.size() && ((extended[index] >> ((id - 256u) % 64)) & 1);
}

// The variant needs a move constructor for every alternative, but an agent never holds a query
// plan, so getting here at all is the fault.
CmdQueryLog::CmdQueryLog(CmdQueryLog&&) { moveQueryLogPlan(); }
CmdQueryLog::~CmdQueryLog() { destroyQueryLogPlan(); }

// ---- Sending: every overload adds up the payload first, then writes it in place. ----

void NetworkConnection::send(const CmdError& cmd) {
  OutgoingPacket packet(this, CmdError::ID, static_cast<uint32_t>(cmd.message.size()));
  packet.writeBytes(cmd.message.data(), cmd.message.size());
}

void NetworkConnection::send(const CmdRegisterIngestContext& cmd) {
  const uint32_t payload = static_cast<uint32_t>(sizeof(uint8_t) + cmd.writeToken.size() +
                                                 sizeof(uint32_t));
  OutgoingPacket packet(this, CmdRegisterIngestContext::ID, payload);
  // The token is the one string with an 8-bit length prefix, so it is written by hand.
  assert(cmd.writeToken.size() < 256);
  packet.write<uint8_t>(static_cast<uint8_t>(cmd.writeToken.size()));
  packet.writeBytes(cmd.writeToken.data(), cmd.writeToken.size());
  packet.write<uint32_t>(cmd.context);
}

void NetworkConnection::send(const CmdIngestContextRegistered& cmd) {
  const uint32_t payload =
      static_cast<uint32_t>(sizeof(uint32_t) + sizeof(uint16_t) + cmd.error.size());
  OutgoingPacket packet(this, CmdIngestContextRegistered::ID, payload);
  packet.write<uint32_t>(cmd.context);
  packet.writeString<uint16_t>(cmd.error);
}

void NetworkConnection::send(const CmdIngestLogEvents& cmd) {
  // Locals, so that the copies below can't make the compiler reload them.
  const EphemeralLogEvent* const events = cmd.events;
  const uint32_t count = cmd.count;
  uint32_t payload = sizeof(uint32_t) + sizeof(uint64_t) + sizeof(uint32_t);
  for (uint32_t i = 0; i < count; ++i) {
    const size_t len = events[i].end - events[i].begin;
    // The eight timestamp bytes count against every event, although the packet carries them once.
    assert(sizeof(uint64_t) + len <= MAXIMUM_EVENT_LENGTH);
    assert(len < 1 << 16);
    payload += static_cast<uint32_t>(sizeof(uint16_t) + len);
  }
  OutgoingPacket packet(this, CmdIngestLogEvents::ID, payload);
  packet.write<uint32_t>(cmd.context);
  packet.write<uint64_t>(cmd.timestamp);
  packet.write<uint32_t>(count);
  // The hot path of the agent: each event is a 16-bit length and its bytes, written through a
  // local cursor (the lengths were checked above). The packet's destructor still checks the end.
  uint8_t* out = sendWrite;
  for (uint32_t i = 0; i < count; ++i) {
    const uint16_t len = static_cast<uint16_t>(events[i].end - events[i].begin);
    memcpy(out, &len, sizeof len);
    memcpy(out + sizeof len, events[i].begin, len);
    out += sizeof len + len;
  }
  sendWrite = out;
}

void NetworkConnection::send(const CmdIngestConfig& cmd) {
  uint64_t payload = sizeof(uint32_t) + sizeof(uint32_t) + sizeof(uint32_t);
  for (const auto& [name, value] : cmd.integerOptions) {
    payload += sizeof(uint16_t) + name.size() + sizeof(value);
  }
  for (const auto& [name, value] : cmd.stringOptions) {
    payload += sizeof(uint16_t) + name.size() + sizeof(uint16_t) + value.size();
  }
  OutgoingPacket packet(this, CmdIngestConfig::ID, static_cast<uint32_t>(payload));
  packet.write<uint32_t>(cmd.context);
  packet.write<uint32_t>(static_cast<uint32_t>(cmd.integerOptions.size()));
  for (const auto& [name, value] : cmd.integerOptions) {
    packet.writeString<uint16_t>(name);
    packet.write<uint64_t>(value);
  }
  packet.write<uint32_t>(static_cast<uint32_t>(cmd.stringOptions.size()));
  for (const auto& [name, value] : cmd.stringOptions) {
    packet.writeString<uint16_t>(name);
    packet.writeString<uint16_t>(value);
  }
}

void NetworkConnection::send(const CmdIngestConfigAck& cmd) {
  uint64_t payload = sizeof(uint32_t) + sizeof(uint32_t);
  for (const std::string& name : cmd.options) payload += sizeof(uint16_t) + name.size();
  OutgoingPacket packet(this, CmdIngestConfigAck::ID, static_cast<uint32_t>(payload));
  packet.write<uint32_t>(cmd.context);
  packet.write<uint32_t>(static_cast<uint32_t>(cmd.options.size()));
  for (const std::string& name : cmd.options) packet.writeString<uint16_t>(name);
}

void NetworkConnection::send(const CmdIngestLogAck& cmd) {
  OutgoingPacket packet(this, CmdIngestLogAck::ID,
                        sizeof(uint32_t) + sizeof(uint64_t) + sizeof(uint16_t));
  packet.write<uint32_t>(cmd.leading);
  packet.write<uint64_t>(cmd.sequence);
  packet.write<uint16_t>(cmd.trailing);
}

// ---- Receiving ----

namespace {

// A parser reads every field even after one failed, and only here decides: a truncated command
// is never dispatched. Extra bytes behind the last field are the peer's business.
template <typename Cmd>
bool dispatch(NetworkCmdAcceptor& acceptor, const NetworkConnection::IncomingPacket& packet,
              Cmd&& cmd) {
  if (!packet.complete()) return false;
  NetworkCommand command(std::forward<Cmd>(cmd));
  acceptor(std::move(command));
  return true;
}

}  // namespace

bool NetworkConnection::parseCommand(uint16_t command, IncomingPacket& packet) {
  switch (command) {
    case CmdError::ID: {
      // The command refers to this string, which outlives the dispatch.
      const std::string message = packet.readRest();
      return dispatch(*handler, packet, CmdError{message});
    }
    case CmdCompleted::ID:
      return dispatch(*handler, packet, CmdCompleted{});
    case CmdIngestContextRegistered::ID: {
      const uint32_t context = packet.read<uint32_t>();
      std::string error = packet.readString<uint16_t>();
      return dispatch(*handler, packet, CmdIngestContextRegistered{context, std::move(error)});
    }
    case CmdIngestConfigAck::ID: {
      const uint32_t context = packet.read<uint32_t>();
      const uint32_t count = packet.read<uint32_t>();
      // The count is not checked against the packet: names past its end read as empty strings,
      // and the packet is then refused as a whole. Reading stops at the first failure, since
      // nothing after it can change that outcome: a count of four billion must cost a failed
      // connection, not billions of empty strings.
      std::vector<std::string> options;
      for (uint32_t i = 0; i < count && !packet.failed; ++i) {
        options.push_back(packet.readString<uint16_t>());
      }
      return dispatch(*handler, packet, CmdIngestConfigAck{context, std::move(options)});
    }
    case CmdIngestLogAck::ID: {
      const uint32_t leading = packet.read<uint32_t>();
      const uint64_t sequence = packet.read<uint64_t>();
      const uint16_t trailing = packet.read<uint16_t>();
      return dispatch(*handler, packet, CmdIngestLogAck{leading, sequence, trailing});
    }
    default:
      // Ids 2, 4 and 49 go the other way; the cluster's commands are another program's.
      return false;
  }
}
