// The ordering of overlapping requests, without a device around it.
#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "platform/RequestSequencer.h"
#include "platform/RequestState.h"

namespace {

using Pt::IoRequest;
using Pt::RequestSequencer;
using Pt::SmartPointer;

struct Queued {
  SmartPointer<IoRequest> request;
  int64_t begin;
  int64_t end;
};

Queued Make(int64_t begin, int64_t end) {
  return {IoRequest::Create(nullptr, 0, IoRequest::Normal), begin, end};
}

// Random ranges, retired in any order the rules allow: a request is handed
// out only after every earlier overlapping request retired, and the map
// never holds more segments than three per live request.
TEST(DeviceSequencer, RandomWorkloadKeepsOrderAndStaysSmall) {
  std::mt19937 random(11);
  RequestSequencer sequencer;
  std::vector<Queued> all;
  std::set<size_t> running, retired;
  std::vector<size_t> admittedOrder;
  for (size_t i = 0; i < 2000; ++i) {
    const int64_t begin = random() % 4000;
    all.push_back(Make(begin, begin + 1 + random() % 300));
  }
  std::map<IoRequest*, size_t> indexOf;
  for (size_t i = 0; i < all.size(); ++i) indexOf[all[i].request.get()] = i;

  auto mayStart = [&](size_t i) {
    for (size_t j = 0; j < i; ++j) {
      const bool overlaps = all[j].begin < all[i].end && all[i].begin < all[j].end;
      if (overlaps && !retired.count(j)) return false;
    }
    return true;
  };
  size_t next = 0;
  while (retired.size() < all.size()) {
    if (next < all.size() && (running.empty() || random() % 2 == 0)) {
      if (sequencer.admit(all[next].request.get(), all[next].begin, all[next].end)) {
        ASSERT_TRUE(mayStart(next));
        running.insert(next);
      }
      ++next;
    } else if (!running.empty()) {
      auto it = running.begin();
      std::advance(it, random() % running.size());
      const size_t done = *it;
      running.erase(it);
      std::vector<IoRequest*> ready;
      sequencer.retire(all[done].request.get(), all[done].begin, all[done].end, ready);
      retired.insert(done);
      for (IoRequest* started : ready) {
        ASSERT_TRUE(mayStart(indexOf[started]));
        running.insert(indexOf[started]);
      }
    }
    ASSERT_TRUE(sequencer.checkInvariants());
    ASSERT_LE(sequencer.segmentCount(), 3 * (next - retired.size()) + 1);
  }
  EXPECT_TRUE(sequencer.empty());
}

}  // namespace
