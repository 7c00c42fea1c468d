// Offline compaction of a cache file: the live entries of the source, as an
// open would load them, written into a new file with no gaps, which then
// replaces the destination in one rename.
//
// The new file is laid out as a created one is, with as many extents as the
// entries need, back to back behind the type table, and the entries' data
// behind the last extent in the source's chain and slot order. Each entry
// keeps its keys, type id and bytes; its allocation is what a cache with the
// default minimum allocation would give it.
#include <algorithm>
#include <string>
#include <vector>

#include "core/ConfigRules.h"
#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "platform/SyncFile.h"
#include "store/CacheFileLoader.h"
#include "store/FileFormat.h"
#include "store/FileLock.h"
#include "store/NativePath.h"
#include "tarn/CacheFile.h"

namespace Tarn {
namespace {

// Bytes of data gathered before they are written to the new file.
constexpr size_t kCopyChunk = size_t{1} << 20;
constexpr const char* kTemporarySuffix = ".compacting";

class Collector : public CacheFileLoader::Visitor {
 public:
  void onType(const TypeRecord& record) override { types.push_back(record); }
  void onEntry(uint32_t, const EntryHeader& header) override { entries.push_back(header); }

  std::vector<TypeRecord> types;
  std::vector<EntryHeader> entries;
};

// The new file's header, type table and extents, with every entry's header
// in its slot; the entries' headers get their new data ranges. Returns the
// image, which ends where the data begins.
std::vector<uint8_t> PlanSkeleton(const std::vector<TypeRecord>& types,
                                  std::vector<EntryHeader>& entries) {
  const uint32_t extents = std::max<uint32_t>(
      1, static_cast<uint32_t>((entries.size() + kEntriesPerExtent - 1) / kEntriesPerExtent));
  const uint64_t dataStart = kFirstExtentOffset + uint64_t{extents} * kExtentBlockSize;
  std::vector<uint8_t> image(dataStart, 0);
  FileHeader header = FileHeader::ForNewFile();
  header.extentCount = extents;
  header.encodeTo(std::span(image).first<FileHeader::kSize>());
  const auto table = EncodeTypeTable(types);
  std::copy(table.begin(), table.end(), image.begin() + kTypeTableOffset);
  for (uint32_t k = 0; k < extents; ++k) {
    const uint32_t location = kFirstExtentOffset + k * kExtentBlockSize;
    ExtentHeader extent = ExtentHeader::ForNewExtent(location);
    if (k + 1 < extents) extent.nextExtent = location + kExtentBlockSize;
    extent.encodeTo(std::span(image).subspan(location).first<ExtentHeader::kSize>());
  }
  uint64_t next = dataStart;
  for (size_t i = 0; i < entries.size(); ++i) {
    EntryHeader& entry = entries[i];
    const uint64_t allocated = AllocatedLengthFor(entry.dataLength, kDefaultMinAllocation);
    if (next + allocated >= CacheFileLoader::kMaxFileSize) {
      throw Pt::ExSystem(EFBIG, kCompactWrite.where);
    }
    entry.dataOffset = static_cast<uint32_t>(next);
    entry.allocatedLength = static_cast<uint32_t>(allocated);
    next += allocated;
    const size_t extent = i / kEntriesPerExtent;
    const size_t slot = kFirstEntriesOffset + extent * kExtentBlockSize +
                        (i % kEntriesPerExtent) * kEntryHeaderSize;
    entry.encodeTo(std::span(image).subspan(slot).first<kEntryHeaderSize>());
  }
  return image;
}

// Writes the skeleton and then each entry's bytes, read from `source` at
// its old range (`old`) and padded with zeros to its new allocation.
void WriteImage(const Pt::SyncFile& source, Pt::SyncFile& target,
                const std::vector<uint8_t>& skeleton, const std::vector<EntryHeader>& old,
                const std::vector<EntryHeader>& placed) {
  target.writeAt(skeleton.data(), skeleton.size(), 0, kCompactWrite.where);
  std::vector<uint8_t> chunk;
  uint64_t chunkAt = skeleton.size();
  const auto flush = [&] {
    target.writeAt(chunk.data(), chunk.size(), chunkAt, kCompactWrite.where);
    chunkAt += chunk.size();
    chunk.clear();
  };
  for (size_t i = 0; i < placed.size(); ++i) {
    uint64_t from = old[i].dataOffset;
    uint32_t rest = placed[i].dataLength;
    while (rest > 0) {
      if (chunk.size() == kCopyChunk) flush();
      const auto part = static_cast<uint32_t>(std::min<size_t>(rest, kCopyChunk - chunk.size()));
      chunk.resize(chunk.size() + part);
      source.readAt(chunk.data() + chunk.size() - part, part, from, kCompactRead.where);
      from += part;
      rest -= part;
    }
    chunk.resize(chunk.size() + (placed[i].allocatedLength - placed[i].dataLength), 0);
    if (chunk.size() >= kCopyChunk) flush();
  }
  if (!chunk.empty()) flush();
}

// Writes the new file at `temporary`, durably, and closes it. On a throw
// the temporary file is removed.
void WriteTemporary(const std::string& temporary, const Pt::SyncFile& source,
                    const Collector& loaded) {
  std::vector<EntryHeader> placed = loaded.entries;
  const std::vector<uint8_t> skeleton = PlanSkeleton(loaded.types, placed);
  Pt::SyncFile target =
      Pt::SyncFile::Open(temporary, Pt::SyncFile::Mode::Create, kCompactWrite.where);
  try {
    WriteImage(source, target, skeleton, loaded.entries, placed);
    target.sync(kCompactWrite.where);
    target.close(kCompactWrite.where);
  } catch (...) {
    target.close();
    try {
      Pt::UnlinkFile(temporary, kCompactWrite.where);
    } catch (const Pt::ExSystem&) {
    }
    throw;
  }
}

// Puts the temporary file in the destination's place and makes the folder
// durable. A failed rename removes the temporary file.
void Replace(const std::string& temporary, const std::string& destination) {
  try {
    Pt::RenameFile(temporary, destination, kCompactReplace.where);
  } catch (const Pt::ExSystem&) {
    try {
      Pt::UnlinkFile(temporary, kCompactReplace.where);
    } catch (const Pt::ExSystem&) {
    }
    throw;
  }
  Pt::SyncParentDirectory(destination, kCompactReplace.where);
}

void Compact(const std::string& from, const std::string& to);

}  // namespace

void CompactCacheFile(const wchar_t* source, const wchar_t* destination) {
  const std::string from = NativePath(source, kOpenFile);
  const std::string to = NativePath(destination, kCompactWrite);
  try {
    Compact(from, to);
  } catch (Pt::Exception& failure) {
    failure.addContext(PathSubject("compact cache file", from) + " into \"" + to + "\"");
    throw;
  }
}

namespace {

void Compact(const std::string& from, const std::string& to) {
  // Locked for the whole run: no cache may write the source meanwhile, nor
  // have the destination open when it is replaced.
  FileLock sourceLock;
  sourceLock.acquire(from);
  Pt::SyncFile destinationLock;
  if (to != from && Pt::FileExists(to)) {
    destinationLock =
        Pt::SyncFile::Open(to, Pt::SyncFile::Mode::ReadOnly, kCompactDestinationLocked.where);
    destinationLock.lockExclusive(kCompactDestinationLocked.where);
  }
  Collector loaded;
  CacheFileLoader::Load(sourceLock.file(), loaded);
  const std::string temporary = to + kTemporarySuffix;
  WriteTemporary(temporary, sourceLock.file(), loaded);
  Replace(temporary, to);
}

}  // namespace

}  // namespace Tarn
