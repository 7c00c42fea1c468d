#include "pt/SmartPointer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Counts its own destructions so that a test can tell "deleted exactly once"
// from "leaked" and "deleted twice".
class Counted : public Pt::SmartPointerBase {
 public:
  explicit Counted(std::atomic<int>& destroyed) : destroyed_(destroyed) {}
  Counted(const Counted& other) = default;

 protected:
  ~Counted() override { destroyed_.fetch_add(1); }

 private:
  std::atomic<int>& destroyed_;
};

class Derived : public Counted {
 public:
  using Counted::Counted;
  int value = 7;
};

TEST(PlatformSmartPointer, CountFollowsCopiesAndLastReleaseDeletes) {
  std::atomic<int> destroyed{0};
  auto* object = new Counted(destroyed);
  EXPECT_EQ(object->refCount(), 0);
  {
    Pt::SmartPointer<Counted> first(object);
    EXPECT_EQ(object->refCount(), 1);
    {
      Pt::SmartPointer<Counted> second(first);
      Pt::SmartPointer<Counted> third;
      third = second;
      EXPECT_EQ(object->refCount(), 3);
      EXPECT_TRUE(second == first);
    }
    EXPECT_EQ(object->refCount(), 1);
    EXPECT_EQ(destroyed.load(), 0);
  }
  EXPECT_EQ(destroyed.load(), 1);
}

TEST(PlatformSmartPointer, ResetAndNullAssignmentDropTheReference) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Counted> pointer(new Counted(destroyed));
  pointer.reset();
  EXPECT_FALSE(pointer);
  EXPECT_TRUE(pointer == nullptr);
  EXPECT_EQ(destroyed.load(), 1);

  pointer = new Counted(destroyed);
  pointer = nullptr;
  EXPECT_EQ(destroyed.load(), 2);
  pointer.reset();  // resetting an empty pointer is harmless
  EXPECT_EQ(destroyed.load(), 2);
}

TEST(PlatformSmartPointer, AssigningTheSameObjectKeepsItAlive) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Counted> pointer(new Counted(destroyed));
  Counted* object = pointer.get();

  Pt::SmartPointer<Counted>& same = pointer;
  pointer = same;
  pointer = object;  // the raw pointer of the only reference
  pointer = std::move(same);
  EXPECT_EQ(destroyed.load(), 0);
  EXPECT_EQ(pointer.get(), object);
  EXPECT_EQ(object->refCount(), 1);
}

TEST(PlatformSmartPointer, MoveLeavesTheSourceNullAndTheCountUnchanged) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Counted> source(new Counted(destroyed));
  Counted* object = source.get();

  Pt::SmartPointer<Counted> target(std::move(source));
  EXPECT_FALSE(source);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.get(), object);
  EXPECT_EQ(object->refCount(), 1);

  // Move assignment releases what the target held before.
  Pt::SmartPointer<Counted> other(new Counted(destroyed));
  other = std::move(target);
  EXPECT_FALSE(target);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(other.get(), object);
  EXPECT_EQ(object->refCount(), 1);
  EXPECT_EQ(destroyed.load(), 1);
}

TEST(PlatformSmartPointer, ConvertsFromDerivedToBase) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Derived> derived(new Derived(destroyed));
  Derived* object = derived.get();

  Pt::SmartPointer<Counted> copied(derived);
  EXPECT_EQ(copied.get(), object);
  EXPECT_EQ(object->refCount(), 2);
  EXPECT_TRUE(copied == derived);

  Pt::SmartPointer<Counted> moved(std::move(derived));
  EXPECT_FALSE(derived);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved.get(), object);
  EXPECT_EQ(object->refCount(), 2);

  copied.reset();
  EXPECT_EQ(destroyed.load(), 0);
  moved.reset();  // deleted through the base: the virtual destructor runs
  EXPECT_EQ(destroyed.load(), 1);
}

TEST(PlatformSmartPointer, ReleaseHandsTheReferenceToTheCaller) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Counted> pointer(new Counted(destroyed));
  Counted* object = pointer.release();
  EXPECT_FALSE(pointer);
  EXPECT_EQ(object->refCount(), 1);
  EXPECT_EQ(destroyed.load(), 0);

  // A raw pointer to a counted object can be wrapped again at any time.
  {
    Pt::SmartPointer<Counted> again(object);
    EXPECT_EQ(object->refCount(), 2);
  }
  EXPECT_EQ(destroyed.load(), 0);
  object->decRefCount();  // the reference that release() handed over
  EXPECT_EQ(destroyed.load(), 1);
}

TEST(PlatformSmartPointer, CopyOfACountedObjectStartsWithoutReferences) {
  std::atomic<int> destroyed{0};
  Pt::SmartPointer<Counted> original(new Counted(destroyed));
  Pt::SmartPointer<Counted> copy(new Counted(*original));
  EXPECT_EQ(original->refCount(), 1);
  EXPECT_EQ(copy->refCount(), 1);
  copy.reset();
  EXPECT_EQ(destroyed.load(), 1);
  EXPECT_EQ(original->refCount(), 1);
}

// Threads copy, move and drop references to the same objects at once; each
// object must be deleted exactly once, and only after the last reference.
TEST(PlatformSmartPointer, ConcurrentCopiesAndReleasesDeleteExactlyOnce) {
  constexpr int kThreads = 8;
  constexpr int kObjects = 64;
  constexpr int kRounds = 200;
  std::atomic<int> destroyed{0};

  std::vector<std::vector<Pt::SmartPointer<Counted>>> held(kThreads);
  {
    std::vector<Pt::SmartPointer<Counted>> objects;
    for (int i = 0; i < kObjects; ++i) objects.emplace_back(new Derived(destroyed));
    for (auto& mine : held) mine = objects;
  }
  EXPECT_EQ(destroyed.load(), 0);

  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<Pt::SmartPointer<Counted>> mine = std::move(held[t]);
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        for (auto& pointer : mine) {
          Pt::SmartPointer<Counted> copy(pointer);
          Pt::SmartPointer<Counted> moved(std::move(copy));
          Pt::SmartPointer<Counted> assigned;
          assigned = moved;
        }
      }
      mine.clear();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(destroyed.load(), kObjects);
}

}  // namespace
