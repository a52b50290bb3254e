// The command catalogue of the cluster protocol: one struct per command, the NetworkCommand
// variant over all 64 of them, the set of ids a connection accepts, and the acceptor interface
// through which a connection hands parsed commands to their handler. Public header; net and app
// include it.
//
// The agent sends ids 2, 4 and 49 and parses ids 0, 1, 3, 50 and 51. The other commands exist
// only as types, so that NetworkCommand names the whole protocol.
#pragma once

#include <array>
#include <cassert>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "support/log_event.h"

/// The scope of the command ids. Ids are the protocol's numbering, unrelated to the order of the
/// alternatives of NetworkCommand.
struct NetworkCommandBase {
  enum Id : uint16_t {
    ERROR = 0,
    COMPLETED = 1,
    REGISTER_INGEST_CONTEXT = 2,
    INGEST_CONTEXT_REGISTERED = 3,
    INGEST_LOG_EVENTS = 4,
    GET_RANDOM_CLUSTER_MAPS = 5,
    GET_QUERY_CACHES = 6,
    REGISTER_NODE = 7,
    REGISTER_OBJSTORE_NODE = 8,
    CONFIRM_NODE = 9,
    ANSWER_RANDOM_CLUSTER_MAPS = 10,
    ANSWER_QUERY_CACHES = 11,
    QUERY_LOG = 12,
    ANSWER_QUERY_LOG = 13,
    ENERGIZE_QUERY = 14,
    UPDATE_CHILD = 15,
    REGISTER_STRUCTURESWITCH = 16,
    QUERY_STRUCTURESWITCH = 17,
    ACKNOWLEDGE_STRUCTURESWITCH = 18,
    CONFIRM_STRUCTURESWITCH = 19,
    DENY_STRUCTURESWITCH = 20,
    OBJSTORE_OPEN = 21,
    OBJSTORE_OPENED = 22,
    OBJSTORE_CLOSE = 23,
    OBJSTORE_CLOSED = 24,
    OBJSTORE_CREATE = 25,
    OBJSTORE_CREATED = 26,
    OBJSTORE_DELETE = 27,
    OBJSTORE_DELETED = 28,
    OBJSTORE_WRITE = 29,
    OBJSTORE_WRITTEN = 30,
    OBJSTORE_READ = 31,
    OBJSTORE_READ_DATA = 32,
    OBJSTORE_LIST_OPEN = 33,
    OBJSTORE_LIST_READ = 34,
    OBJSTORE_LIST_READ_DATA = 35,
    OBJSTORE_GET_LAYOUT = 36,
    OBJSTORE_ANSWER_GET_LAYOUT = 37,
    OBJSTORE_UPDATE_NODE = 38,
    OBJSTORE_RESHARD = 39,
    OBJSTORE_ANSWER_RESHARD = 40,
    OBJSTORE_NODE_UPDATED = 41,
    DATABASE_QUERY = 42,
    DATABASE_QUERY_RANGE = 43,
    DATABASE_QUERIED = 44,
    DATABASE_MODIFY = 45,
    DATABASE_MODIFIED = 46,
    DATABASE_LEADER_HINT = 47,
    DATABASE_NEW_CHANGES = 48,
    INGEST_CONFIG = 49,
    INGEST_CONFIG_ACK = 50,
    INGEST_LOG_ACK = 51,
    DATABASE_NOW_AT = 52,
    DATABASE_REQUEST_SNAPSHOT = 53,
    DATABASE_CALL_FOR_ELECTION = 54,
    DATABASE_VOTE = 55,
    ARE_BLOCKS_IN_USE = 56,
    ANSWER_ARE_BLOCKS_IN_USE = 57,
    CLEAR_CACHE_RANGE = 58,
    CACHE_RANGE_CLEARED = 59,
    QUERY_POOL_GET_LAYOUT = 60,
    QUERY_POOL_ANSWER_GET_LAYOUT = 61,
    QUERY_POOL_GET_ASSIGNMENTS = 62,
    QUERY_POOL_ANSWER_GET_ASSIGNMENTS = 63,
  };
};

// ---- Ingest commands: the agent's part of the protocol ----

/// The peer's complaint. Refers to the text, which the parser keeps alive during dispatch.
struct CmdError {
  static constexpr uint16_t ID = NetworkCommandBase::ERROR;
  const std::string& message;
};

struct CmdCompleted {
  static constexpr uint16_t ID = NetworkCommandBase::COMPLETED;
};

/// Asks the ingester to accept `writeToken` (at most 255 bytes) under the agent's id `context`.
struct CmdRegisterIngestContext {
  static constexpr uint16_t ID = NetworkCommandBase::REGISTER_INGEST_CONTEXT;
  std::string writeToken;
  uint32_t context;
};

/// The answer to a registration: an empty `error` is success.
struct CmdIngestContextRegistered {
  static constexpr uint16_t ID = NetworkCommandBase::INGEST_CONTEXT_REGISTERED;
  uint32_t context;
  std::string error;
};

/// One batch: all events share context and time. Points into the caller's events, copies nothing.
struct CmdIngestLogEvents {
  static constexpr uint16_t ID = NetworkCommandBase::INGEST_LOG_EVENTS;
  uint32_t context;
  uint64_t timestamp;
  const EphemeralLogEvent* events;
  uint32_t count;
};

/// Options of a context; maps, so that the wire order is ascending by name.
struct CmdIngestConfig {
  static constexpr uint16_t ID = NetworkCommandBase::INGEST_CONFIG;
  uint32_t context;
  std::map<std::string, uint64_t> integerOptions;
  std::map<std::string, std::string> stringOptions;
};

/// The option names the ingester has taken for `context`.
struct CmdIngestConfigAck {
  static constexpr uint16_t ID = NetworkCommandBase::INGEST_CONFIG_ACK;
  uint32_t context;
  std::vector<std::string> options;
};

/// Batches up to and including number `sequence` are done. The two outer fields are the
/// ingester's; the agent only reads past them.
struct CmdIngestLogAck {
  static constexpr uint16_t ID = NetworkCommandBase::INGEST_LOG_ACK;
  uint32_t leading;
  uint64_t sequence;
  uint16_t trailing;
};

// ---- Cluster commands: named so that NetworkCommand is complete; the agent neither sends nor
// parses them, and their fields stand only as far as construction and destruction need them. ----

struct CmdGetRandomClusterMaps {
  static constexpr uint16_t ID = NetworkCommandBase::GET_RANDOM_CLUSTER_MAPS;
  uint32_t count;
};

struct CmdGetQueryCaches {
  static constexpr uint16_t ID = NetworkCommandBase::GET_QUERY_CACHES;
};

struct CmdRegisterNode {
  static constexpr uint16_t ID = NetworkCommandBase::REGISTER_NODE;
  uint32_t node;
};

struct CmdRegisterObjstoreNode {
  static constexpr uint16_t ID = NetworkCommandBase::REGISTER_OBJSTORE_NODE;
  uint32_t node;
  std::string address;
};

struct CmdConfirmNode {
  static constexpr uint16_t ID = NetworkCommandBase::CONFIRM_NODE;
  uint32_t node;
  uint64_t epoch;
  uint8_t identity[16];
};

struct CmdAnswerRandomClusterMaps {
  static constexpr uint16_t ID = NetworkCommandBase::ANSWER_RANDOM_CLUSTER_MAPS;
  std::vector<uint64_t> maps;
};

struct CmdAnswerQueryCaches {
  static constexpr uint16_t ID = NetworkCommandBase::ANSWER_QUERY_CACHES;
  std::vector<uint64_t> caches;
};

/// Carries a query plan that only query nodes build; in the agent, moving or destroying one is a
/// program error.
struct CmdQueryLog {
  static constexpr uint16_t ID = NetworkCommandBase::QUERY_LOG;
  CmdQueryLog(CmdQueryLog&& other);
  ~CmdQueryLog();
};

struct CmdAnswerQueryLog {
  static constexpr uint16_t ID = NetworkCommandBase::ANSWER_QUERY_LOG;
  struct Column {
    uint32_t type;
    std::string name;
  };
  struct Group {
    std::string key;
    uint64_t rows;
  };
  struct Source {
    std::string host, file, token, parser, format;
  };
  struct Warning {
    uint32_t code;
    std::string where, text;
  };
  std::string query;
  uint64_t total;
  std::vector<uint64_t> rowTimes;
  std::vector<Column> columns;
  std::vector<Group> groups;
  std::vector<Source> sources;
  std::vector<Warning> warnings;
};

struct CmdEnergizeQuery {
  static constexpr uint16_t ID = NetworkCommandBase::ENERGIZE_QUERY;
  uint64_t query;
  std::unordered_set<std::string> nodes;
};

struct CmdUpdateChild {
  static constexpr uint16_t ID = NetworkCommandBase::UPDATE_CHILD;
};

struct CmdRegisterStructureSwitch {
  static constexpr uint16_t ID = NetworkCommandBase::REGISTER_STRUCTURESWITCH;
  uint64_t switchId;
  std::vector<std::string> oldStructure;
  std::vector<std::string> newStructure;
  uint64_t deadline;
  std::vector<std::string> participants;
};

/// One layout for the four steps of a structure switch.
template <NetworkCommandBase::Id E>
struct TmplCmdStructureSwitch {
  static constexpr uint16_t ID = E;
  uint64_t switchId;
  uint64_t epoch;
  uint32_t node;
};

struct CmdObjstoreOpen {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_OPEN;
  uint64_t request;
  std::string name;
};

struct CmdObjstoreOpened {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_OPENED;
  uint64_t request;
  uint64_t handle;
  std::string error;
};

struct CmdObjstoreClose {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_CLOSE;
  uint64_t handle;
};

struct CmdObjstoreClosed {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_CLOSED;
  uint64_t handle;
  std::string error;
};

struct CmdObjstoreCreate {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_CREATE;
  uint64_t request;
  uint64_t size;
  uint32_t replicas;
};

struct CmdObjstoreCreated {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_CREATED;
  uint64_t request;
  std::string error;
};

struct CmdObjstoreDelete {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_DELETE;
  uint64_t object;
};

struct CmdObjstoreDeleted {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_DELETED;
  uint64_t object;
  std::string error;
};

struct CmdObjstoreWrite {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_WRITE;
  uint64_t handle;
  std::shared_ptr<const std::string> data;
};

struct CmdObjstoreWritten {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_WRITTEN;
  uint64_t handle;
  std::string error;
};

struct CmdObjstoreRead {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_READ;
  uint64_t handle;
  uint64_t offset;
  uint32_t size;
};

struct CmdObjstoreReadData {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_READ_DATA;
  uint64_t handle;
  std::shared_ptr<const std::string> data;
  std::string error;
};

struct CmdObjstoreListOpen {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_LIST_OPEN;
  uint64_t request;
  std::string prefix;
};

struct CmdObjstoreListRead {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_LIST_READ;
  uint64_t list;
  uint64_t position;
  uint32_t count;
};

struct CmdObjstoreListReadData {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_LIST_READ_DATA;
  uint64_t list;
  std::vector<std::string> names;
  std::string error;
};

struct CmdObjstoreGetLayout {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_GET_LAYOUT;
};

struct CmdObjstoreAnswerGetLayout {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_ANSWER_GET_LAYOUT;
  uint64_t layout;
};

struct CmdObjstoreUpdateNode {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_UPDATE_NODE;
  uint32_t node;
  uint32_t shard;
  uint64_t epoch;
  std::string address;
};

struct CmdObjstoreReshard {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_RESHARD;
  uint64_t request;
  uint64_t epoch;
  uint32_t shards;
};

struct CmdObjstoreAnswerReshard {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_ANSWER_RESHARD;
  uint64_t request;
};

struct CmdObjstoreNodeUpdated {
  static constexpr uint16_t ID = NetworkCommandBase::OBJSTORE_NODE_UPDATED;
};

struct CmdDatabaseQuery {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_QUERY;
  uint64_t request;
  uint64_t key[2];
};

struct CmdDatabaseQueryRange {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_QUERY_RANGE;
  uint64_t request;
  uint64_t from;
  uint64_t to;
};

struct CmdDatabaseQueried {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_QUERIED;
  struct Row {
    uint64_t key;
    uint64_t version;
    std::vector<std::string> values;
  };
  uint64_t request;
  uint64_t version;
  std::string error;
  std::vector<Row> rows;
};

struct CmdDatabaseModify {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_MODIFY;
  uint64_t request;
  uint64_t key;
  uint64_t value;
};

struct CmdDatabaseModified {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_MODIFIED;
  uint64_t request;
  uint64_t version;
  std::string error;
};

struct CmdDatabaseLeaderHint {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_LEADER_HINT;
  uint32_t leader;
  uint32_t term;
};

struct CmdDatabaseNewChanges {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_NEW_CHANGES;
  uint64_t term;
  uint64_t from;
  uint64_t to;
};

struct CmdDatabaseNowAt {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_NOW_AT;
  uint64_t term;
  uint64_t version;
  uint32_t node;
};

struct CmdDatabaseRequestSnapshot {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_REQUEST_SNAPSHOT;
  uint64_t version;
};

struct CmdDatabaseCallForElection {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_CALL_FOR_ELECTION;
  uint64_t term;
  uint64_t version;
  uint32_t candidate;
};

struct CmdDatabaseVote {
  static constexpr uint16_t ID = NetworkCommandBase::DATABASE_VOTE;
  uint32_t candidate;
  uint32_t term;
};

struct CmdAreBlocksInUse {
  static constexpr uint16_t ID = NetworkCommandBase::ARE_BLOCKS_IN_USE;
  uint64_t request;
};

struct CmdAnswerAreBlocksInUse {
  static constexpr uint16_t ID = NetworkCommandBase::ANSWER_ARE_BLOCKS_IN_USE;
  uint64_t request;
  uint64_t inUse[2];
};

struct CmdClearCacheRange {
  static constexpr uint16_t ID = NetworkCommandBase::CLEAR_CACHE_RANGE;
  uint64_t request;
  uint64_t from;
  uint64_t to;
};

struct CmdCacheRangeCleared {
  static constexpr uint16_t ID = NetworkCommandBase::CACHE_RANGE_CLEARED;
  uint64_t request;
  uint64_t from;
  uint64_t to;
};

struct CmdQueryPoolGetLayout {
  static constexpr uint16_t ID = NetworkCommandBase::QUERY_POOL_GET_LAYOUT;
};

struct CmdQueryPoolAnswerGetLayout {
  static constexpr uint16_t ID = NetworkCommandBase::QUERY_POOL_ANSWER_GET_LAYOUT;
  uint64_t layout;
  uint64_t epoch;
  uint32_t members;
};

struct CmdQueryPoolGetAssignments {
  static constexpr uint16_t ID = NetworkCommandBase::QUERY_POOL_GET_ASSIGNMENTS;
  uint64_t request;
  uint64_t epoch;
  uint32_t node;
};

struct CmdQueryPoolAnswerGetAssignments {
  static constexpr uint16_t ID = NetworkCommandBase::QUERY_POOL_ANSWER_GET_ASSIGNMENTS;
  struct Assignment {
    uint64_t query;
    uint32_t node;
    std::vector<std::string> inputs;
    std::vector<std::string> outputs;
  };
  uint64_t epoch;
  std::vector<std::string> members;
  std::vector<Assignment> assignments;
};

/// Every command of the protocol. The alternatives' order is fixed; it is not the order of ids.
using NetworkCommand = std::variant<
    CmdError, CmdCompleted, CmdIngestLogEvents, CmdRegisterIngestContext,
    CmdIngestContextRegistered, CmdGetRandomClusterMaps, CmdGetQueryCaches, CmdRegisterNode,
    CmdRegisterObjstoreNode, CmdConfirmNode, CmdAnswerRandomClusterMaps, CmdAnswerQueryCaches,
    CmdQueryLog, CmdAnswerQueryLog, CmdEnergizeQuery, CmdUpdateChild, CmdRegisterStructureSwitch,
    TmplCmdStructureSwitch<NetworkCommandBase::QUERY_STRUCTURESWITCH>,
    TmplCmdStructureSwitch<NetworkCommandBase::ACKNOWLEDGE_STRUCTURESWITCH>,
    TmplCmdStructureSwitch<NetworkCommandBase::CONFIRM_STRUCTURESWITCH>,
    TmplCmdStructureSwitch<NetworkCommandBase::DENY_STRUCTURESWITCH>, CmdObjstoreOpen,
    CmdObjstoreOpened, CmdObjstoreClose, CmdObjstoreClosed, CmdObjstoreCreate, CmdObjstoreCreated,
    CmdObjstoreDelete, CmdObjstoreDeleted, CmdObjstoreWrite, CmdObjstoreWritten, CmdObjstoreRead,
    CmdObjstoreReadData, CmdObjstoreListOpen, CmdObjstoreListRead, CmdObjstoreListReadData,
    CmdObjstoreGetLayout, CmdObjstoreAnswerGetLayout, CmdObjstoreUpdateNode, CmdObjstoreReshard,
    CmdObjstoreAnswerReshard, CmdObjstoreNodeUpdated, CmdIngestConfig, CmdIngestConfigAck,
    CmdIngestLogAck, CmdDatabaseQuery, CmdDatabaseQueryRange, CmdDatabaseQueried,
    CmdDatabaseModify, CmdDatabaseModified, CmdDatabaseLeaderHint, CmdDatabaseNewChanges,
    CmdDatabaseNowAt, CmdDatabaseRequestSnapshot, CmdDatabaseCallForElection, CmdDatabaseVote,
    CmdAreBlocksInUse, CmdAnswerAreBlocksInUse, CmdClearCacheRange, CmdCacheRangeCleared,
    CmdQueryPoolGetLayout, CmdQueryPoolAnswerGetLayout, CmdQueryPoolGetAssignments,
    CmdQueryPoolAnswerGetAssignments>;

/// A set of command ids: `words` holds ids 0 to 255 (bit id % 64 of word id / 64), `extended`
/// the ids from 256 on; an id behind the vector's end is not in the set.
struct CommandSet {
  std::array<uint64_t, 4> words{};
  std::vector<uint64_t> extended;

  void insert(uint16_t id);
  bool contains(uint16_t id) const;
};

/// What a connection hands parsed commands to. The connection owns its acceptor and asks it once,
/// when it is set, which ids to let through; ids outside that set never reach operator().
class NetworkCmdAcceptor {
 public:
  virtual CommandSet acceptedCommands() const = 0;
  /// Called synchronously from the connection's receive path; may send on or finish the
  /// connection, but must not destroy it.
  virtual void operator()(NetworkCommand&& cmd) = 0;
  virtual ~NetworkCmdAcceptor() = default;
};

/// Adapts a handler class H, which has operator() overloads for the commands it handles and an
/// acceptedCommands() that names exactly their ids. A command that H has no overload for converts
/// to NetworkCommand and ends at the catch-all, which stops the process: the accepted set must
/// have let through something H does not handle.
template <typename H>
class NetworkCmdHandler : public NetworkCmdAcceptor {
 public:
  /// Builds the H from `args`.
  template <typename... Args>
  explicit NetworkCmdHandler(Args&&... args) : handler{H(std::forward<Args>(args)...)} {}

  CommandSet acceptedCommands() const override { return handler.acceptedCommands(); }
  void operator()(NetworkCommand&& cmd) override { std::visit(handler, std::move(cmd)); }

 private:
  struct : H {
    using H::operator();
    void operator()(NetworkCommand&&) { assert(false); }
  } handler;
};
