#include "pt/SmartPointer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Counts its own destructions, so that a test can tell "deleted exactly once"
// from "leaked" and "deleted twice".
class Counted : public Pt::SmartPointerBase {
 public:
  explicit Counted(std::atomic<int>& destroyed) : destroyed_(destroyed) {}

 protected:
  ~Counted() override { destroyed_.fetch_add(1); }

 private:
  std::atomic<int>& destroyed_;
};

class Derived : public Counted {
 public:
  using Counted::Counted;
};

TEST(PlatformSmartPointer, CopiesShareOneCountAndTheLastReleaseDeletes) {
  std::atomic<int> destroyed{0};
  auto* object = new Counted(destroyed);
  {
    Pt::SmartPointer<Counted> only(object);
    {
      Pt::SmartPointer<Counted> second(only);
      Pt::SmartPointer<Counted> third;
      third = second;
      EXPECT_EQ(object->refCount(), 3);
    }
    // Re-assigning the object to its only reference must not delete it.
    Pt::SmartPointer<Counted>& same = only;
    only = same;
    only = object;
    only = std::move(same);
    EXPECT_EQ(object->refCount(), 1);
    EXPECT_EQ(destroyed.load(), 0);

    // A copy of a counted object is a new object without references.
    (void)Pt::SmartPointer<Counted>(new Counted(*object));
    EXPECT_EQ(destroyed.load(), 1);
  }
  EXPECT_EQ(destroyed.load(), 2);
}

TEST(PlatformSmartPointer, MoveAndReleaseHandOverTheReference) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Derived> source(new Derived(destroyed));
  Derived* object = source.get();

  Pt::SmartPointer<Counted> target(std::move(source));
  EXPECT_FALSE(source);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(object->refCount(), 1);

  Pt::SmartPointer<Counted> other(new Counted(destroyed));
  other = std::move(target);  // releases what `other` held before
  EXPECT_FALSE(target);       // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(other.get(), object);
  EXPECT_EQ(object->refCount(), 1);
  EXPECT_EQ(destroyed.load(), 1);

  Counted* raw = other.release();
  EXPECT_EQ(raw->refCount(), 1);
  raw->decRefCount();  // the handed-over reference; deletes through the base
  EXPECT_EQ(destroyed.load(), 2);
}

// Threads copy, move and drop references to the same objects at once, while
// the creator drops its own; each object must be deleted exactly once, and
// only after the last reference.
TEST(PlatformSmartPointer, ConcurrentCopiesAndReleasesDeleteExactlyOnce) {
  constexpr int kThreads = 8;
  std::atomic<int> destroyed{0};
  std::vector<Pt::SmartPointer<Counted>> objects;
  for (int i = 0; i < 64; ++i) objects.emplace_back(new Counted(destroyed));

  std::latch copied(kThreads + 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      std::vector<Pt::SmartPointer<Counted>> mine = objects;
      copied.arrive_and_wait();
      for (int round = 0; round < 200; ++round) {
        for (auto& pointer : mine) {
          Pt::SmartPointer<Counted> copy(pointer);
          Pt::SmartPointer<Counted> moved(std::move(copy));
          Pt::SmartPointer<Counted> assigned;
          assigned = moved;
        }
      }
    });
  }
  copied.arrive_and_wait();
  objects.clear();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(destroyed.load(), 64);
}

}  // namespace
