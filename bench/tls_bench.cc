// Throughput of a TLS NetworkConnection pair on loopback against a bare SSL_write/SSL_read loop
// with the same record sizes, both ends driven by one thread in both cases. The connection should
// reach at least 80% of the bare loop.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "loop/event_loop.h"
#include "net/network_connection.h"
#include "protocol/network_packet.h"
#include "tests/support/address_helpers.h"

namespace {

// Bytes pushed per benchmark iteration.
constexpr size_t BATCH_BYTES = 4 << 20;

// The server side only counts: the transport is measured, not the command parsers.
class CountingConnection : public NetworkConnection {
 public:
  using NetworkConnection::NetworkConnection;
  void parseRecvBuffer() override {
    received += recvWrite - recvRead;
    recvRead = recvWrite;
  }
  uint64_t received = 0;
};

// A throw-away certificate in a fresh directory; the directory is returned.
std::string writeSelfSigned() {
  char dir[] = "/tmp/tls_bench.XXXXXX";
  if (!mkdtemp(dir)) abort();
  const std::string made =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
      "-subj /CN=localhost -days 1 -keyout " +
      std::string(dir) + "/brindlewood.key -out " + std::string(dir) +
      "/brindlewood.crt 2>/dev/null";
  if (system(made.c_str()) != 0) abort();
  return dir;
}

struct Contexts {
  SSL_CTX* client;
  SSL_CTX* server;
};

// The connection's process-wide context (server profile: TLS 1.3, one suite) and, for the bare
// loop, two contexts with the same profile.
const Contexts& initializeTls() {
  static Contexts contexts = [] {
    const std::string dir = writeSelfSigned();
    char previous[4096];
    if (!getcwd(previous, sizeof(previous)) || chdir(dir.c_str()) != 0) abort();
    std::ostringstream ignored;
    NetworkConnection::Initialize(Log(ignored), true, false);
    Contexts made{SSL_CTX_new(TLS_method()), SSL_CTX_new(TLS_method())};
    for (SSL_CTX* ctx : {made.client, made.server}) {
      SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
      SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION);
      SSL_CTX_set_ciphersuites(ctx, "TLS_AES_128_GCM_SHA256");
    }
    if (SSL_CTX_use_certificate_chain_file(made.server, "brindlewood.crt") != 1 ||
        SSL_CTX_use_PrivateKey_file(made.server, "brindlewood.key", SSL_FILETYPE_PEM) != 1) {
      abort();
    }
    unlink("brindlewood.crt");
    unlink("brindlewood.key");
    if (chdir(previous) != 0) abort();
    rmdir(dir.c_str());
    return made;
  }();
  return contexts;
}

void BM_ConnectionPair(benchmark::State& state) {
  initializeTls();
  const size_t packetSize = state.range(0);
  std::ostringstream out;
  Log log(out);
  EventLoop loop(log);
  uint16_t port = 0;
  const int listener = listenOnLoopback(&port);
  NetworkConnection client(log, loopbackInfo(port), true);
  client.registerAt(&loop);
  const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  CountingConnection server(log, loopbackInfo(port), fd, true);
  server.registerAt(&loop);
  loop.runWhile([&] {
    return client.connectionState() != NetworkConnection::ESTABLISHED ||
           server.connectionState() != NetworkConnection::ESTABLISHED;
  });

  const std::string payload(packetSize - PACKET_HEADER_SIZE, 'x');
  const size_t packets = BATCH_BYTES / packetSize;
  uint64_t target = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < packets; ++i) {
      NetworkConnection::OutgoingPacket packet(&client, 1, static_cast<uint32_t>(payload.size()));
      packet.writeBytes(payload.data(), payload.size());
    }
    target += packets * packetSize;
    loop.runWhile([&] { return server.received < target && !server.hasFailed(); });
  }
  if (server.hasFailed() || client.hasFailed()) state.SkipWithError("connection failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * packets * packetSize));
  close(listener);
}

// Both ends in one thread, non-blocking: write until OpenSSL would block, then read all there is.
void BM_BareSslLoop(benchmark::State& state) {
  const Contexts& contexts = initializeTls();
  const size_t recordSize = state.range(0);
  uint16_t port = 0;
  const int listener = listenOnLoopback(&port);
  const int clientFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(clientFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) abort();
  const int serverFd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fcntl(clientFd, F_SETFL, O_NONBLOCK) != 0) abort();
  SSL* client = SSL_new(contexts.client);
  SSL* server = SSL_new(contexts.server);
  SSL_set_fd(client, clientFd);
  SSL_set_fd(server, serverFd);
  for (int c = 0, s = 0; c != 1 || s != 1;) {
    if (c != 1) c = SSL_connect(client);
    if (s != 1) s = SSL_accept(server);
  }

  const std::vector<char> record(recordSize, 'x');
  std::vector<char> sink(1 << 16);
  const size_t records = BATCH_BYTES / recordSize;
  for (auto _ : state) {
    size_t written = 0;
    uint64_t read = 0;
    while (read < records * recordSize) {
      while (written < records &&
             SSL_write(client, record.data(), static_cast<int>(recordSize)) > 0)
        ++written;
      for (int n; (n = SSL_read(server, sink.data(), static_cast<int>(sink.size()))) > 0;) {
        read += static_cast<uint64_t>(n);
      }
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * records * recordSize));
  SSL_free(client);
  SSL_free(server);
  close(clientFd);
  close(serverFd);
  close(listener);
}

BENCHMARK(BM_ConnectionPair)->Arg(4096)->Arg(16384)->Arg(65536)->UseRealTime();
BENCHMARK(BM_BareSslLoop)->Arg(4096)->Arg(16384)->Arg(65536)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
