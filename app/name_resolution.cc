#include "app/name_resolution.h"

#include <netdb.h>
#include <unistd.h>

#include <memory>
#include <mutex>

ResolvedAddresses resolveConnectionStrings(const Log& log, const std::vector<ConnectionString>& strings) {
  addrinfo hints{};
  hints.ai_flags = AI_ADDRCONFIG;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = 0;

  std::vector<std::unique_ptr<gaicb>> requests;
  std::vector<gaicb*> list;
  for (const ConnectionString& target : strings) {
    auto request = std::make_unique<gaicb>();
    request->ar_name = target.host.c_str();
    request->ar_service = target.port.c_str();
    request->ar_request = &hints;
    request->ar_result = nullptr;
    list.push_back(request.get());
    requests.push_back(std::move(request));
  }

  ResolvedAddresses result;
  const int failed = getaddrinfo_a(GAI_WAIT, list.data(), static_cast<int>(list.size()), nullptr);
  if (failed != 0) {
    error(log) << "getaddrinfo_a() failed: " << gai_strerror(failed) << std::endl;
    for (const ConnectionString& target : strings) {
      result.emplace_back(ConnectionError{target.host, target.port, gai_strerror(failed)});
    }
    return result;
  }
  for (size_t i = 0; i < strings.size(); ++i) {
    const ConnectionString& target = strings[i];
    const int e = gai_error(list[i]);
    if (e != 0) {
      error(log) << "Could not resolve: " << target.host << ":" << target.port << ": " << gai_strerror(e)
                 << std::endl;
      result.emplace_back(ConnectionError{target.host, target.port, gai_strerror(e)});
      continue;
    }
    for (const addrinfo* entry = list[i]->ar_result; entry; entry = entry->ai_next) {
      result.emplace_back(ConnectionInfo(*entry, target));
    }
    // Every ConnectionInfo owns its copy of the address, so the list can go now.
    freeaddrinfo(list[i]->ar_result);
  }
  return result;
}

void resolverThreadMain(std::atomic<bool>& keepRunning, Log& log, std::vector<ConnectionString>& strings,
                        ResolvedAddresses& resolved, std::shared_mutex& mutex) {
  for (;;) {
    // Five minutes in slices of 50 ms, so the end of a run is noticed at once.
    for (int slice = 0; slice < 6000 && keepRunning; ++slice) usleep(50000);
    if (!keepRunning) return;
    ResolvedAddresses fresh = resolveConnectionStrings(log, strings);
    std::unique_lock<std::shared_mutex> lock(mutex);
    resolved.clear();
    for (const auto& entry : fresh) resolved.push_back(entry);
  }
}
