#include "store/FileReadEntryReceiver.h"

#include <climits>
#include <memory>

#include "core/ClientException.h"
#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "store/FileManager.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

// A request's length is an int: no entry's data can be longer.
constexpr uint32_t kMaxReadLength = INT_MAX;

}  // namespace

FileReadEntryReceiver::FileReadEntryReceiver(EntryReadSink* sink, FileManager* store,
                                             uint32_t serial,
                                             const Pt::SmartPointer<CacheableFactory>& factory,
                                             const PrimaryKey& primaryKey,
                                             const SecondaryKey& secondaryKey, int32_t requestId,
                                             FileOperationRef operation)
    : FileReceiverBase(std::move(operation)),
      sink_(sink),
      store_(store),
      serial_(serial),
      factory_(factory),
      primaryKey_(primaryKey),
      secondaryKey_(secondaryKey),
      requestId_(requestId) {}

Pt::SmartPointer<Pt::IoRequest> FileReadEntryReceiver::Queue(
    Pt::IoDevice& device, const EntryHeader& header,
    const Pt::SmartPointer<FileReadEntryReceiver>& receiver) {
  // A damaged header is refused before anything is allocated: its length
  // could ask for gigabytes, or for bytes of a neighbouring entry.
  if (header.dataLength > header.allocatedLength || header.dataLength > kMaxReadLength) {
    throw WithSubject(ExFileReadEntry(kReadEntryDamaged.where), KeySubject(receiver->primaryKey_));
  }
  const auto request = Pt::IoRequest::Create(receiver.get(), static_cast<int>(header.dataLength),
                                             Pt::IoRequest::Normal);
  request->setOffset(header.dataOffset);
  if (device.readNowOrQueue(request)) return request;
  return {};
}

void FileReadEntryReceiver::ioCompleted(Pt::IoRequest& request) {
  try {
    rebuild(request);
  } catch (...) {
    const std::unique_ptr<Pt::Exception> error = CaughtAsPtException();
    sink_->entryReadFailed(
        primaryKey_, requestId_,
        WithSubject(ExFileReadEntry(kReadEntryRebuild.where, *error), KeySubject(primaryKey_)));
  }
}

void FileReadEntryReceiver::rebuild(Pt::IoRequest& request) {
  // A read that ends early ran into the end of the file: the entry's range
  // lies beyond it, and a part of its bytes would be garbage.
  if (request.byteCount() != request.length()) throw ExFileReadEntry(kReadEntryDamaged.where);
  // An entry whose data write failed (its failure is recorded before this
  // read could start) or that was erased meanwhile: the range may hold
  // anything.
  if (store_ != nullptr && !store_->holds(primaryKey_, serial_)) {
    throw ExFileReadEntry(kReadEntryGone.where);
  }
  const Pt::SmartPointer<Buffer> buffer = Buffer::Create(request.byteCount(), request.data());
  const Pt::SmartPointer<Cacheable> cacheable = factory_->decode(primaryKey_, buffer);
  if (!cacheable) {
    throw Pt::Exception(Pt::ExReason{kDecodeNoObjectMessage, kDecodeNoObject.where, 1});
  }
  sink_->entryRead(primaryKey_, secondaryKey_, cacheable, requestId_);
}

void FileReadEntryReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  sink_->entryReadFailed(
      primaryKey_, requestId_,
      WithSubject(ExFileReadEntry(kReadEntryFailed.where, cause), KeySubject(primaryKey_)));
}

}  // namespace Tarn
