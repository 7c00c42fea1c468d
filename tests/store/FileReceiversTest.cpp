// The read of an entry is refused before it is queued when its header is
// damaged, and a refused read releases everything it holds.
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "core/RaiseSites.h"
#include "pt/IoDevice.h"
#include "store/FileFormat.h"
#include "store/FileOperations.h"
#include "store/FileReadEntryReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Pt::IoRequest;
using Pt::SmartPointer;

// A device that keeps what it is given, or refuses it as a full queue would.
class KeepingDevice : public Pt::IoDevice {
 public:
  explicit KeepingDevice(bool refuse) : refuse_(refuse) {}
  void read(const SmartPointer<IoRequest>& request) override {
    if (refuse_) throw Pt::ExSystem(EAGAIN, Pt::ExWhere{"test/KeepingDevice", 1});
    kept.push_back(request);
  }
  void write(const SmartPointer<IoRequest>& request) override { kept.push_back(request); }
  std::vector<SmartPointer<IoRequest>> kept;

 private:
  const bool refuse_;
};

// A read that is never queued (a damaged length, a refusing device) leaves
// no receiver behind: its operation, which commit() and the store's
// destructor wait for, ends at once.
TEST(FileReadEntryQueue, RefusedReadLeavesNoReceiverCounted) {
  const struct {
    const char* what;
    uint32_t dataLength, allocatedLength;
    bool refuse;
    int line;  // where the exception was raised; 0 for a read that is queued
  } cases[] = {
      {"length within the allocation", 100, 112, false, 0},
      {"length past the allocation", 113, 112, false, kReadEntryDamaged.where.line},
      {"length of 2 GiB", 0x80000000u, 0x80000000u, false, kReadEntryDamaged.where.line},
      {"largest length", 0xFFFFFFFFu, 0xFFFFFFFFu, false, kReadEntryDamaged.where.line},
      {"device refuses", 100, 112, true, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FileOperations operations;
    SmartPointer<KeepingDevice> device(new KeepingDevice(c.refuse));
    EntryHeader header;
    header.dataOffset = kInitialFileSize;
    header.dataLength = c.dataLength;
    header.allocatedLength = c.allocatedLength;
    int line = 0;
    try {
      FileReadEntryReceiver::Queue(*device, header,
                                   SmartPointer<FileReadEntryReceiver>(new FileReadEntryReceiver(
                                       nullptr, nullptr, 0, nullptr, PrimaryKey::FromString("k"),
                                       {}, 1, operations.begin())));
    } catch (const Pt::Exception& error) {
      line = error.where().line;
    }
    EXPECT_EQ(line, c.line);
    EXPECT_EQ(operations.openCount(), c.line == 0 ? 1u : 0u);
    device->kept.clear();  // a kept request ends its receiver when released
    EXPECT_EQ(operations.openCount(), 0u);
  }
}

}  // namespace
}  // namespace Tarn
