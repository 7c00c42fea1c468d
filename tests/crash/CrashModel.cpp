#include "crash/CrashModel.h"

#include <algorithm>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "support/RecordingReceiver.h"
#include "tarn/tarn.h"

namespace TarnCrash {
namespace {

constexpr size_t kMinLength = 16;
constexpr size_t kLengthSpread = 3000;

uint64_t Mix(uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  return x;
}

std::string Head(int key, int64_t version) {
  return KeyName(key) + "@" + std::to_string(version) + ";";
}

}  // namespace

std::string KeyName(int key) {
  return key < kSmallKeys ? "s" + std::to_string(key) : "l" + std::to_string(key - kSmallKeys);
}

std::vector<uint8_t> Payload(int key, int64_t version) {
  const std::string head = Head(key, version);
  const uint64_t seed = Mix(static_cast<uint64_t>(version) * 1000003u + static_cast<uint64_t>(key));
  const size_t length = std::max(head.size(), kMinLength + seed % kLengthSpread);
  std::vector<uint8_t> bytes(head.begin(), head.end());
  bytes.resize(length);
  for (size_t i = head.size(); i < length; ++i) {
    bytes[i] = static_cast<uint8_t>(Mix(seed + i) & 0xFF);
  }
  return bytes;
}

std::optional<int64_t> VersionOf(int key, const std::vector<uint8_t>& bytes) {
  const std::string prefix = KeyName(key) + "@";
  if (bytes.size() < prefix.size() ||
      std::memcmp(bytes.data(), prefix.data(), prefix.size()) != 0) {
    return std::nullopt;
  }
  int64_t version = 0;
  size_t i = prefix.size();
  for (; i < bytes.size() && bytes[i] >= '0' && bytes[i] <= '9' && i < prefix.size() + 18; ++i) {
    version = version * 10 + (bytes[i] - '0');
  }
  if (i == prefix.size() || i >= bytes.size() || bytes[i] != ';') return std::nullopt;
  if (Payload(key, version) != bytes) return std::nullopt;
  return version;
}

Model::Model(const std::map<int, int64_t>& baseline) {
  for (int key = 0; key < kKeyCount; ++key) {
    const auto found = baseline.find(key);
    current_[key] = found == baseline.end() ? kAbsent : found->second;
    allowed_[key] = {current_[key]};
  }
}

void Model::apply(const std::string& line) {
  std::istringstream in(line);
  char kind = 0;
  int key = -1;
  int64_t version = kAbsent;
  in >> kind;
  if (kind == 'C') {
    ++commits_;
    for (auto& [k, states] : allowed_) states = {current_[k]};
    return;
  }
  // A close changes no key's state (it only moves entries), and the model
  // does not take it for a commit: the allowed states stay as they are.
  if (kind == 'R') {
    int64_t moved = 0;
    if (!(in >> moved)) return;
    ++closes_;
    relocated_ += moved;
    return;
  }
  if (!(in >> key) || key < 0 || key >= kKeyCount) return;
  if ((kind == 'W' || kind == 'T') && !(in >> version)) return;
  if (kind != 'W' && kind != 'T' && kind != 'E') return;
  if (kind == 'T') ++tierWrites_;
  current_[key] = version;
  allowed_[key].insert(version);
}

void Model::applyLog(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  // A last line without its newline was torn by the kill.
  while (std::getline(in, line)) {
    if (!in.eof()) apply(line);
  }
}

std::string Describe(int64_t state) {
  return state == kAbsent ? "absent" : std::to_string(state);
}

std::string Describe(const std::set<int64_t>& states) {
  std::string text = "{";
  for (const int64_t state : states) {
    if (text.size() > 1) text += ", ";
    text += Describe(state);
  }
  return text + "}";
}

int64_t StateOf(Tarn::Cache& cache, int key, std::string& problem) {
  Pt::SmartPointer<TarnTest::RecordingReceiver> receiver(new TarnTest::RecordingReceiver);
  if (cache.find(Tarn::PrimaryKey::FromString(KeyName(key)), receiver.get()) == 0) return kAbsent;
  if (!receiver->waitFor(1)) return problem = "no answer to find", kAbsent;
  const TarnTest::ReceiverCall call = receiver->calls()[0];
  if (call.kind != TarnTest::ReceiverCall::Found) {
    problem = "find failed: " + std::string(call.error ? call.error->what() : "cancelled");
    return kAbsent;
  }
  const Pt::SmartPointer<Tarn::Buffer>& data = call.cacheable->getData();
  const std::vector<uint8_t> bytes(data->bytes(), data->bytes() + data->length());
  const std::optional<int64_t> version = VersionOf(key, bytes);
  if (!version) {
    std::string head(bytes.begin(), bytes.begin() + std::min<size_t>(bytes.size(), 24));
    for (char& c : head) c = (c >= 32 && c < 127) ? c : '.';
    problem = "wrong bytes (" + std::to_string(bytes.size()) + " bytes starting \"" + head + "\")";
    return kAbsent;
  }
  return *version;
}

}  // namespace TarnCrash
