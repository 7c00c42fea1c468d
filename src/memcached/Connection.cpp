#include "memcached/Connection.h"

#include <new>

namespace Tarn::Memcached {
namespace {

// Codes with which a server answered but refused to store a value: not a
// sign that the server is unwell.
bool IsRefusal(memcached_return_t code) {
  switch (code) {
    case MEMCACHED_E2BIG:
    case MEMCACHED_NOTSTORED:
    case MEMCACHED_DATA_EXISTS:
    case MEMCACHED_SERVER_MEMORY_ALLOCATION_FAILURE:
    case MEMCACHED_SERVER_ERROR:
      return true;
    default:
      return false;
  }
}

uint64_t Micros(std::chrono::milliseconds ms) {
  return uint64_t(ms.count()) * 1000;
}

}  // namespace

Connection::Connection(const std::vector<ServerAddress>& servers, const MemcachedTierConfig& config)
    : servers_(servers), config_(config), handle_(build()) {}

Connection::~Connection() {
  memcached_free(handle_);
}

memcached_st* Connection::build() const {
  memcached_st* handle = memcached_create(nullptr);
  if (handle == nullptr) throw std::bad_alloc();
  // The distribution comes first: adding servers builds the continuum.
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_BINARY_PROTOCOL, 1);
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_DISTRIBUTION,
                         MEMCACHED_DISTRIBUTION_CONSISTENT_KETAMA);
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_NO_BLOCK, 1);
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_TCP_NODELAY, 1);
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_CONNECT_TIMEOUT,
                         uint64_t(config_.connectTimeout.count()));
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_POLL_TIMEOUT,
                         uint64_t(config_.receiveTimeout.count()));
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_RCV_TIMEOUT, Micros(config_.receiveTimeout));
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_SND_TIMEOUT, Micros(config_.receiveTimeout));
  // libmemcached's own ejection stays off: the handle is rebuilt after a
  // failure and ServerHealth decides when a server is tried again.
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_REMOVE_FAILED_SERVERS, 0);
  memcached_behavior_set(handle, MEMCACHED_BEHAVIOR_RETRY_TIMEOUT, 0);
  for (const ServerAddress& server : servers_) {
    memcached_server_add(handle, server.host.c_str(), server.port);
  }
  return handle;
}

void Connection::reset() {
  memcached_st* fresh = build();
  memcached_free(handle_);
  handle_ = fresh;
}

std::size_t Connection::serverOf(std::string_view key) const {
  return memcached_generate_hash(handle_, key.data(), key.size());
}

// A connection that a server closed (it restarted, or dropped idle
// clients) fails its next request at once; one more try on a fresh handle
// tells that apart from a server that is down. A timeout is not tried
// again: it has already cost a receive timeout.
bool Connection::worthRetrying(const Reply& reply) {
  if (reply.outcome != Outcome::Failed || reply.code == MEMCACHED_TIMEOUT) return false;
  reset();
  return true;
}

Connection::Reply Connection::get(std::string_view key) {
  Reply reply = getOnce(key);
  return worthRetrying(reply) ? getOnce(key) : std::move(reply);
}

Connection::Reply Connection::set(std::string_view key, std::string_view value,
                                  uint32_t expirationSeconds) {
  Reply reply = setOnce(key, value, expirationSeconds);
  return worthRetrying(reply) ? setOnce(key, value, expirationSeconds) : std::move(reply);
}

Connection::Reply Connection::getOnce(std::string_view key) {
  Reply reply;
  uint32_t flags = 0;
  char* bytes = memcached_get(handle_, key.data(), key.size(), &reply.length, &flags, &reply.code);
  reply.bytes.reset(bytes);
  if (reply.code == MEMCACHED_SUCCESS) {
    reply.outcome = Outcome::Found;
  } else if (reply.code == MEMCACHED_NOTFOUND) {
    reply.outcome = Outcome::NotFound;
  }
  return reply;
}

Connection::Reply Connection::setOnce(std::string_view key, std::string_view value,
                                      uint32_t expirationSeconds) {
  Reply reply;
  reply.code = memcached_set(handle_, key.data(), key.size(), value.data(), value.size(),
                             time_t(expirationSeconds), 0);
  if (reply.code == MEMCACHED_SUCCESS) {
    reply.outcome = Outcome::Stored;
  } else if (IsRefusal(reply.code)) {
    reply.outcome = Outcome::Refused;
  }
  return reply;
}

}  // namespace Tarn::Memcached
