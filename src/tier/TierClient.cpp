#include "tier/TierClient.h"

#include <stdexcept>

#include "tier/TierRecord.h"

namespace Tarn {
namespace {

const TierConfig& Checked(const TierConfig& config) {
  if (!config.tier) throw std::invalid_argument("Tarn::Cache: TierConfig without a tier");
  if (config.keyNamespace.size() > kMaxTierNamespace) {
    throw std::invalid_argument("Tarn::Cache: TierConfig::keyNamespace longer than 64 bytes");
  }
  if (config.deadline < std::chrono::milliseconds(1)) {
    throw std::invalid_argument("Tarn::Cache: TierConfig::deadline below 1 ms");
  }
  return config;
}

}  // namespace

TierClient::TierClient(const TierConfig& config)
    : tier_(Checked(config).tier), keyNamespace_(config.keyNamespace), deadline_(config.deadline) {}

TierClient::~TierClient() {
  close();
}

std::string TierClient::keyFor(const std::string& type, const PrimaryKey& primaryKey) const {
  return TierKey(keyNamespace_, type, primaryKey);
}

std::chrono::steady_clock::time_point TierClient::deadlineFromNow() const {
  return std::chrono::steady_clock::now() + deadline_;
}

bool TierClient::beginLookup() {
  Pt::MutexLock lock(lock_);
  if (closing_) return false;
  ++inFlight_;
  return true;
}

void TierClient::endLookup() {
  Pt::MutexLock lock(lock_);
  if (--inFlight_ == 0) ended_.broadcast();
}

void TierClient::close() {
  Pt::MutexLock lock(lock_);
  closing_ = true;
  while (inFlight_ > 0) ended_.wait_(lock_, -1);
}

bool TierClient::recordStatus(TierLookupStatus status) {
  switch (status) {
    case TierLookupStatus::Hit:
      inOutage_ = false;
      return false;
    case TierLookupStatus::Miss:
      ++misses_;
      inOutage_ = false;
      return false;
    case TierLookupStatus::Timeout:
      ++timeouts_;
      return false;
    case TierLookupStatus::Unavailable:
      ++unavailable_;
      return !inOutage_.exchange(true);
  }
  return false;
}

void TierClient::publish(const std::string& type, const PrimaryKey& primaryKey,
                         const SecondaryKey& secondaryKey, const uint8_t* payload,
                         uint32_t length) {
  const std::string key = keyFor(type, primaryKey);
  if (TierRecordSize(key, type, secondaryKey, length) > tier_->maxValueSize()) {
    ++tooLarge_;
    return;
  }
  const std::string value = EncodeTierRecord(key, type, secondaryKey, payload, length);
  ++published_;  // counted first, so that whoever sees the value sees the count
  tier_->publish(key, value);
}

TierStatistics TierClient::statistics() const {
  TierStatistics statistics;
  statistics.hits = hits_;
  statistics.misses = misses_;
  statistics.timeouts = timeouts_;
  statistics.unavailable = unavailable_;
  statistics.rejected = rejected_;
  statistics.published = published_;
  statistics.tooLarge = tooLarge_;
  return statistics;
}

}  // namespace Tarn
