// Real memcached servers and a silent one, for the tier's tests.
//
// MemcachedServer runs `memcached -l 127.0.0.1 -p PORT -U 0 -m 64` as a
// child process, in a folder of the caller's choosing, on a free loopback
// port; kill() ends it at once (SIGKILL), restart() brings it back on the
// same port, and the destructor stops and reaps it. Every wait is bounded.
//
// BlackHole listens on a loopback port and never answers: connections
// complete (the kernel's backlog accepts them) and requests go unanswered.
//
// RawClient speaks memcached's text protocol over one connection, so that a
// test can look at or plant values without the tier.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TarnTest {

class MemcachedServer {
 public:
  explicit MemcachedServer(std::string folder);
  ~MemcachedServer();
  MemcachedServer(const MemcachedServer&) = delete;
  MemcachedServer& operator=(const MemcachedServer&) = delete;

  uint16_t port() const { return port_; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  void kill();     // SIGKILL and reap
  void restart();  // same port; throws if it does not come up in 5 s

 private:
  void start();

  std::string folder_;
  uint16_t port_;
  pid_t pid_ = -1;
};

class BlackHole {
 public:
  BlackHole();
  ~BlackHole();
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  int fd_;
  uint16_t port_;
};

class RawClient {
 public:
  explicit RawClient(uint16_t port);  // throws if it cannot connect
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool set(std::string_view key, std::string_view value);
  std::optional<std::string> get(std::string_view key);
  // Every key the server holds (memcached's LRU crawler metadump).
  std::vector<std::string> keys();

 private:
  void sendAll(std::string_view bytes);
  void receiveMore();
  std::string readLine();
  std::string readExact(std::size_t n);

  int fd_;
  std::string buffered_;
};

// A loopback port nobody listens on at the moment of the call.
uint16_t FreePort();

}  // namespace TarnTest
