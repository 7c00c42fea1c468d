// MakeMemcachedTier: checks a configuration and builds the tier.
#include <charconv>
#include <stdexcept>

#include "memcached/MemcachedTierImpl.h"

namespace Tarn {
namespace {

[[noreturn]] void Reject(const std::string& what) {
  throw std::invalid_argument("MemcachedTierConfig: " + what);
}

// "host:port" or "[v6-address]:port".
Memcached::ServerAddress ParseServer(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
    Reject("server \"" + text + "\" is not host:port");
  }
  std::string host = text.substr(0, colon);
  if (host.front() == '[') {
    if (host.size() < 3 || host.back() != ']')
      Reject("server \"" + text + "\" has a malformed [address]");
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    Reject("server \"" + text + "\": write an IPv6 address in brackets, [address]:port");
  }
  unsigned port = 0;
  const char* first = text.data() + colon + 1;
  const char* last = text.data() + text.size();
  auto [end, error] = std::from_chars(first, last, port);
  if (error != std::errc() || end != last || port == 0 || port > 65535) {
    Reject("server \"" + text + "\" has no port between 1 and 65535");
  }
  return Memcached::ServerAddress{host, static_cast<uint16_t>(port)};
}

void CheckBounds(const MemcachedTierConfig& config) {
  using std::chrono::milliseconds;
  if (config.connectTimeout <= milliseconds::zero()) Reject("connectTimeout must be positive");
  if (config.receiveTimeout <= milliseconds::zero()) Reject("receiveTimeout must be positive");
  if (config.retryDelay < milliseconds::zero()) Reject("retryDelay must not be negative");
  if (config.failuresBeforeEjection == 0) Reject("failuresBeforeEjection must be at least 1");
  if (config.maxValueSize == 0) Reject("maxValueSize must be positive");
  if (config.publishQueueBytes == 0) Reject("publishQueueBytes must be positive");
  if (config.lookupThreads == 0) Reject("lookupThreads must be at least 1");
  if (config.maxQueuedLookups == 0) Reject("maxQueuedLookups must be at least 1");
}

}  // namespace

MemcachedTier::~MemcachedTier() = default;

std::shared_ptr<MemcachedTier> MakeMemcachedTier(const MemcachedTierConfig& config) {
  if (config.servers.empty()) Reject("servers is empty");
  CheckBounds(config);
  std::vector<Memcached::ServerAddress> servers;
  for (const std::string& text : config.servers) servers.push_back(ParseServer(text));
  return std::make_shared<Memcached::MemcachedTierImpl>(config, std::move(servers));
}

}  // namespace Tarn
