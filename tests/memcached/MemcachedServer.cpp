#include "memcached/MemcachedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace TarnTest {
namespace {

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket bound to a free loopback port; the port goes to `port`.
int BindFree(uint16_t& port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(fd);
    throw std::runtime_error("bind failed");
  }
  port = ntohs(address.sin_port);
  return fd;
}

int Connect(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(port);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

}  // namespace

uint16_t FreePort() {
  uint16_t port = 0;
  close(BindFree(port));
  return port;
}

MemcachedServer::MemcachedServer(std::string folder)
    : folder_(std::move(folder)), port_(FreePort()) {
  start();
}

MemcachedServer::~MemcachedServer() {
  // Nothing it holds is worth a clean shutdown.
  kill();
}

void MemcachedServer::start() {
  const std::string port = std::to_string(port_);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    if (chdir(folder_.c_str()) != 0) _exit(126);
    // memcached refuses to run as root unless told which user to be.
    const char* user = geteuid() == 0 ? "root" : nullptr;
    execlp("memcached", "memcached", "-l", "127.0.0.1", "-p", port.c_str(), "-U", "0", "-m", "64",
           user != nullptr ? "-u" : nullptr, user, static_cast<char*>(nullptr));
    _exit(127);
  }
  // Up once it accepts a connection; 5 s at most.
  for (int i = 0; i < 500; ++i) {
    int fd = Connect(port_);
    if (fd >= 0) {
      close(fd);
      return;
    }
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill();
  throw std::runtime_error("memcached did not start on port " + port);
}

void MemcachedServer::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void MemcachedServer::restart() {
  kill();
  start();
}

BlackHole::BlackHole() : fd_(BindFree(port_)) {
  if (listen(fd_, 128) != 0) {
    close(fd_);
    throw std::runtime_error("listen failed");
  }
}

BlackHole::~BlackHole() {
  close(fd_);
}

RawClient::RawClient(uint16_t port) : fd_(Connect(port)) {
  if (fd_ < 0) throw std::runtime_error("cannot connect to port " + std::to_string(port));
  timeval timeout{5, 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

RawClient::~RawClient() {
  close(fd_);
}

void RawClient::sendAll(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) throw std::runtime_error("send failed");
    bytes.remove_prefix(std::size_t(n));
  }
}

void RawClient::receiveMore() {
  char chunk[4096];
  ssize_t got = recv(fd_, chunk, sizeof chunk, 0);
  if (got <= 0) throw std::runtime_error("connection closed or timed out");
  buffered_.append(chunk, std::size_t(got));
}

std::string RawClient::readExact(std::size_t n) {
  while (buffered_.size() < n) receiveMore();
  std::string out = buffered_.substr(0, n);
  buffered_.erase(0, n);
  return out;
}

std::string RawClient::readLine() {
  std::size_t end;
  while ((end = buffered_.find("\r\n")) == std::string::npos) receiveMore();
  std::string line = buffered_.substr(0, end);
  buffered_.erase(0, end + 2);
  return line;
}

bool RawClient::set(std::string_view key, std::string_view value) {
  sendAll("set " + std::string(key) + " 0 0 " + std::to_string(value.size()) + "\r\n");
  sendAll(value);
  sendAll("\r\n");
  return readLine() == "STORED";
}

std::optional<std::string> RawClient::get(std::string_view key) {
  sendAll("get " + std::string(key) + "\r\n");
  std::string line = readLine();
  if (line == "END") return std::nullopt;
  // VALUE <key> <flags> <bytes>
  const std::size_t length = std::stoul(line.substr(line.rfind(' ') + 1));
  std::string value = readExact(length + 2).substr(0, length);
  if (readLine() != "END") throw std::runtime_error("malformed reply");
  return value;
}

std::vector<std::string> RawClient::keys() {
  sendAll("lru_crawler metadump all\r\n");
  // Lines "key=<url-encoded key> exp=... la=...", each ending in a bare
  // newline, then "END\r\n".
  std::size_t end;
  while ((end = buffered_.find("END\r\n")) == std::string::npos) receiveMore();
  std::istringstream lines(buffered_.substr(0, end));
  buffered_.erase(0, end + 5);
  std::vector<std::string> keys;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("key=", 0) != 0) throw std::runtime_error("unexpected metadump line: " + line);
    const std::string encoded = line.substr(4, line.find(' ') - 4);
    std::string key;
    for (std::size_t i = 0; i < encoded.size(); ++i) {
      if (encoded[i] == '%' && i + 2 < encoded.size()) {
        key += char(std::stoi(encoded.substr(i + 1, 2), nullptr, 16));
        i += 2;
      } else {
        key += encoded[i];
      }
    }
    keys.push_back(key);
  }
  return keys;
}

}  // namespace TarnTest
