// An insert held back by a full write backlog waits with no lock of the
// cache held: lookups, and the I/O threads that deliver reads into the
// cache, go on meanwhile. (Waiting under the manager's file lock once
// deadlocked: the completion threads blocked on that lock, so the writes
// that would have made room were never completed.)
#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "platform/IoFaultInjection.h"
#include "support/CacheFixture.h"

namespace {

using Pt::IoFaultInjection;

class CacheBackpressureTest : public TarnTest::CacheFixture {};

TEST_F(CacheBackpressureTest, InsertWaitingForRoomHoldsNoLockOfTheCache) {
  constexpr size_t kBig = 1 << 20;
  constexpr int kFillBacklog = 32;  // 32 writes of 1 MiB fill the 32 MiB backlog
  open();
  insert("old", 100);
  cache_->commit();
  cache_->purge(Key("old"));  // a find of it now reads the file

  IoFaultInjection::Add({.action = IoFaultInjection::Action::HoldBack,
                         .kind = IoFaultInjection::Kind::Write,
                         .count = -1});
  auto inserts = std::async(std::launch::async, [&] {
    for (int i = 0; i <= kFillBacklog; ++i) insert("big" + std::to_string(i), kBig);
  });
  ASSERT_TRUE(IoFaultInjection::WaitHeld(kFillBacklog));
  EXPECT_EQ(inserts.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

  Pt::SmartPointer<TarnTest::RecordingReceiver> receiver(new TarnTest::RecordingReceiver);
  auto found =
      std::async(std::launch::async, [&] { return cache_->find(Key("old"), receiver.get()); });
  ASSERT_EQ(found.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_NE(found.get(), 0);
  ASSERT_TRUE(receiver->waitFor(1));
  EXPECT_EQ(receiver->calls()[0].kind, TarnTest::ReceiverCall::Found);

  IoFaultInjection::Clear();  // the held writes complete: room again
  ASSERT_EQ(inserts.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  cache_->commit();
  EXPECT_TRUE(cache_->isCached(Key("big" + std::to_string(kFillBacklog))));
}

}  // namespace
