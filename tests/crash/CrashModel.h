// What the kill -9 loop's writer may have left in the file, and how to tell.
//
// Keys are numbered: the first kSmallKeys ("s0".."s19") are churned hard so
// that replacements of one key overlap in flight; the rest ("l0"...) spread
// the writes over many entries. Every write stores a new version number,
// unique over the whole run, and its bytes name their key and version, so a
// key that returns another key's data, an older version or damaged bytes is
// caught by comparing with Payload().
//
// The writer logs each step before it makes it ("W key version",
// "E key"), logs "C" after each commit() that returned, and "R moved" after
// each close (a reopen follows), with the entries that close relocated. A
// writer with a shared tier logs "T key version" for a write the tier serves
// (an older version coming back); the model takes it as a write. Replaying the log
// gives, per key, the states it may legitimately have after a kill: the state
// at the last logged commit, plus every state written since (a write logged
// but never made is allowed, not required).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Tarn {
class Cache;
}

namespace TarnCrash {

inline constexpr int kSmallKeys = 20;
inline constexpr int kLargeKeys = 200;
inline constexpr int kKeyCount = kSmallKeys + kLargeKeys;
inline constexpr int64_t kAbsent = -1;  // the state of a key that is not stored

std::string KeyName(int key);
// The bytes of version `version` of `key`: a text head naming both, then a
// filler that depends on the version, 16 to about 3,000 bytes in all.
std::vector<uint8_t> Payload(int key, int64_t version);
// The version that `bytes` are, when they are exactly Payload(key, v) for
// some v; nothing otherwise (another key's data, a torn or stale range).
std::optional<int64_t> VersionOf(int key, const std::vector<uint8_t>& bytes);

class Model {
 public:
  // Every key starts in the state `baseline` gives it (absent when missing),
  // as if committed.
  explicit Model(const std::map<int, int64_t>& baseline);
  // Applies one log line; malformed lines (a line torn by the kill) are
  // ignored.
  void apply(const std::string& line);
  // Applies every line of the log file at `path`.
  void applyLog(const std::string& path);

  const std::set<int64_t>& allowed(int key) const { return allowed_.at(key); }
  int commits() const { return commits_; }
  int closes() const { return closes_; }
  int64_t relocated() const { return relocated_; }
  int tierWrites() const { return tierWrites_; }

 private:
  std::map<int, int64_t> current_;
  std::map<int, std::set<int64_t>> allowed_;
  int commits_ = 0;
  int closes_ = 0;
  int64_t relocated_ = 0;
  int tierWrites_ = 0;
};

// The state of `key` in `cache`, looked up with find(): absent, a version,
// or (in `problem`) why it is neither (a failed find, wrong bytes).
int64_t StateOf(Tarn::Cache& cache, int key, std::string& problem);

// "{3, 17}" or "{absent, 17}".
std::string Describe(const std::set<int64_t>& states);
std::string Describe(int64_t state);

}  // namespace TarnCrash
