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
  Queued queued{IoRequest::Create(nullptr, 0, IoRequest::Normal), begin, end};
  return queued;
}

TEST(DeviceSequencer, DisjointRequestsStartAtOnceAndLeaveNothingBehind) {
  RequestSequencer sequencer;
  std::vector<Queued> queued;
  for (int i = 0; i < 100; ++i) queued.push_back(Make(i * 64, i * 64 + 64));
  for (auto& q : queued) EXPECT_TRUE(sequencer.admit(q.request.get(), q.begin, q.end));
  std::vector<IoRequest*> ready;
  for (auto& q : queued) sequencer.retire(q.request.get(), q.begin, q.end, ready);
  EXPECT_TRUE(ready.empty());
  EXPECT_TRUE(sequencer.empty());
}

TEST(DeviceSequencer, RequestWaitsForEveryEarlierOverlapOnce) {
  RequestSequencer sequencer;
  Queued left = Make(0, 100), right = Make(200, 300), spanning = Make(50, 250);
  Queued inside = Make(60, 70);
  EXPECT_TRUE(sequencer.admit(left.request.get(), 0, 100));
  EXPECT_TRUE(sequencer.admit(right.request.get(), 200, 300));
  EXPECT_FALSE(sequencer.admit(spanning.request.get(), 50, 250));
  EXPECT_FALSE(sequencer.admit(inside.request.get(), 60, 70));
  sequencer.checkInvariants();

  std::vector<IoRequest*> ready;
  sequencer.retire(right.request.get(), 200, 300, ready);
  EXPECT_TRUE(ready.empty());  // `spanning` still waits for `left`
  sequencer.retire(left.request.get(), 0, 100, ready);
  ASSERT_EQ(ready, std::vector<IoRequest*>{spanning.request.get()});
  ready.clear();
  sequencer.retire(spanning.request.get(), 50, 250, ready);
  ASSERT_EQ(ready, std::vector<IoRequest*>{inside.request.get()});
  ready.clear();
  sequencer.retire(inside.request.get(), 60, 70, ready);
  EXPECT_TRUE(sequencer.empty());
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
    sequencer.checkInvariants();
    ASSERT_LE(sequencer.segmentCount(), 3 * (next - retired.size()) + 1);
  }
  EXPECT_TRUE(sequencer.empty());
}

}  // namespace
