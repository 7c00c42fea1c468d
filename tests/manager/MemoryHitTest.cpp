// A find served from memory allocates nothing on the heap: this binary's
// operator new counts the allocations each thread makes.
#include <cstdlib>
#include <new>

#include "support/CacheFixture.h"

namespace {

thread_local long allocationsOnThisThread = 0;

}  // namespace

// GCC takes the replaced pair for a mismatched one when it inlines them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  ++allocationsOnThisThread;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}
#pragma GCC diagnostic pop

namespace {

class CountingReceiver : public Tarn::CacheableReceiver {
 public:
  void found(int, const Tarn::CacheKey<32>&, const Pt::SmartPointer<Tarn::Cacheable>&) override {
    ++found_;
  }
  void cancelled(int, const Tarn::CacheKey<32>&) override {}
  void failed(int, const Tarn::CacheKey<32>&, const Pt::Exception&) override {}
  int foundCount() const { return found_; }

 private:
  int found_ = 0;
};

class MemoryHitTest : public TarnTest::CacheFixture {};

TEST_F(MemoryHitTest, FindOfAnObjectInMemoryAllocatesNothing) {
  open();
  insert("a", 100);
  insert("b", 100);
  const Pt::SmartPointer<CountingReceiver> receiver(new CountingReceiver);
  const Tarn::PrimaryKey keys[] = {Key("a"), Key("b")};
  const long before = allocationsOnThisThread;
  for (int i = 0; i < 100; ++i) cache_->find(keys[i % 2], receiver.get());
  EXPECT_EQ(allocationsOnThisThread - before, 0);
  EXPECT_EQ(receiver->foundCount(), 100);
  EXPECT_EQ(stats().memoryHits, 100);
}

}  // namespace
