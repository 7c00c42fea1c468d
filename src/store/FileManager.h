// FileManager: the store of one cache file.
//
// It holds in memory everything the file says except the entries' data:
// which entries live where, which types the file knows, the extents, the free
// EntryHeader slots and the free data ranges. The open (the constructor)
// verifies and loads the file; afterwards every read and write goes through
// the platform's asynchronous device, and the tables change only under
// `lock_`. Closing needs no write: the file is consistent on its own, because
// every write that another depends on is durable before the dependent one is
// issued (GroupSync batches the syncs):
// - an entry's data before its header;
// - an extent before the link that reaches it;
// - a delete header before the slot or the data range is reused;
// - the delete header of every earlier header of a key before a new header
//   of that key, so the file never holds two live headers for one key.
// With Config::relaxedOrdering, "durable" weakens to "completed": the file
// then survives a crash of the process but not a power loss. The close may
// still write to make the file smaller: it relocates the entries at its end
// into gaps nearer its start, each entry's copy durable before the header
// that points to it and the old copy free only after that header is durable
// (FileManagerRelocate.cpp), in either mode.
//
// Budget: with Config::fileBudget (or near the format's 2 GiB limit), a write
// that finds no free range for its data and would grow the file past the
// budget first erases the least recently used entries (the recency of
// `entries_`; an insert or a read from the file makes an entry the most recent), then waits
// until their delete headers are durable and their ranges free, and tries
// again (awaitRoom, before the caller takes any lock of the cache manager).
// Nothing left to evict: the file grows past the budget.
//
// An entry goes through the stages FileEntryInfo.h describes.
// A write that fails takes its entry out of the tables, so the store never
// reads back a range that was not written and never keeps a header it could
// not write; the failure is counted (writeFailures()).
//
// One owner per file: the open takes an exclusive advisory lock on the file
// before it reads anything and keeps it until the store is destroyed, so a
// second store on the same file, in this process or another, fails instead of
// corrupting it.
//
// Table invariants, whenever `lock_` is free (checkInvariants() walks them in
// every build; debug builds check them after each write and erase while the
// store holds few entries):
// - every key of `entries_` equals the primary key of its EntryInfo's header,
//   and `entries_` keeps its own invariants (EntryTable.h);
// - an EntryHeader slot is queued in `freeEntryHeaders_`, or owned by an
//   EntryInfo of `entries_` or `pendingErasures_`, or covered by a delete
//   header write in flight, or lies in a given-up extent; never two of these;
// - the data range of every EntryInfo overlaps no free range, no other
//   entry's range and no table of the file;
// - every EntryInfo in `pendingErasures_` is in stage Data or Header;
// - an entry is Parked only while `erasing_` counts its key;
// - `types_` holds distinct names and the ids 1 to its size;
// - `fileEnd_` stays below 2 GiB and shrinks only in shrinkIfEmpty(), back
//   to `firstExtentEnd_`, and in the destructor's relocation, to the end of
//   the last claimed range.
//
// Thread-safety: all public operations may be called from any thread; they
// take `lock_` (re-entrant, innermost) themselves, except allocateData and
// allocateEntryHeader, whose callers hold it. commit() and the destructor
// must not run on an I/O completion thread or a group-sync step.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/FactoryManager.h"
#include "pt/CondVar.h"
#include "pt/Mutex.h"
#include "pt/PtIoDeviceFile.h"
#include "pt/ThreadAnnotations.h"
#include "store/EntryTable.h"
#include "store/FileDeleteEntryReceiver.h"
#include "store/FileFormat.h"
#include "store/FileLock.h"
#include "store/FileOperations.h"
#include "store/FreeSpace.h"
#include "store/GroupSync.h"
#include "store/SecondaryIndex.h"
#include "tarn/Config.h"

namespace Tarn {

class EntryReadSink;
class RelocationPlan;

class FileManager {
 public:
  struct TypeInfo {
    uint32_t id = 0;
    std::string name;
  };
  struct ExtentInfo {
    ExtentHeader header;  // as read or written; nextExtent is not updated by a relink
    uint32_t location = 0;
  };
  using Stage = FileEntryStage;
  using EntryInfo = FileEntryInfo;

  // Opens the cache file at `path` (creating it first when it is missing and
  // `config.createIfMissing` is set), verifies and loads it, clears on disk
  // what the load salvaged from a damaged file (the slots of dropped
  // entries, a link to no extent), gives every factory's type an id (writing
  // the type table when types are new; both writes are synced before the
  // open goes on) and opens the asynchronous device. Throws Pt::ExSystem, ExUnsupportedFileVersion,
  // ExFactoryClassNotFound or std::bad_alloc; on a throw nothing of the store
  // survives and the file is unlocked.
  FileManager(const wchar_t* path, EntryReadSink* readSink, const Config& config,
              const Pt::SmartPointer<FactoryManager>& factories);
  // Waits for every operation of this file to end, flushes, relocates the
  // entries at the end of the file into free space nearer its start when the
  // file has grown past RelocationTrigger() times what it must hold, and
  // cuts it back (FileManagerRelocate.cpp), then frees. Never throws: a
  // failure is posted, and the file keeps every entry.
  ~FileManager();
  FileManager(const FileManager&) = delete;
  FileManager& operator=(const FileManager&) = delete;

  // Waits for every operation of this file that had started when it was
  // called (down to the last header, delete and relink each one causes), then
  // flushes. Operations started meanwhile are not waited for. Throws
  // Pt::ExSystem when the flush fails.
  void commit();

  bool contains(const PrimaryKey& key);
  // Whether the entry of `key` is still the one written as `serial`.
  bool holds(const PrimaryKey& primaryKey, uint32_t serial);
  int32_t entryCount();
  // The id of a registered type; 0 when `name` is not registered.
  uint32_t typeId(const std::string& name);
  // The name of type `id`; empty when the file knows no such id.
  const std::string& typeName(uint32_t id);
  // Replaces `primaryKeys` with the keys stored under `secondaryKey`, sorted.
  void findPrimaryKeys(const SecondaryKey& secondaryKey, std::vector<PrimaryKey>& primaryKeys);

  // Holds the caller back while 32 MiB of entry writes are queued, and, with
  // a budget, until the least recently used entries erased to make room for
  // `length` bytes are free again: so the backlog and the file stay bounded.
  // It waits for I/O completions, so the caller must hold no lock that a
  // completion takes (no cache-manager lock) and must not be an I/O thread.
  void awaitRoom(uint32_t length);
  // Entries. write enters the entry in the tables (visible at once) and
  // queues its data; the header follows once the data is on disk. It never
  // waits: with a budget, it evicts what the write needs, and the file may
  // pass the budget until the evicted ranges come free (awaitRoom first
  // avoids that). It throws
  // std::invalid_argument for a key already stored or a bad key length,
  // ExFactoryClassNotFound for a type the file does not know, Pt::ExSystem
  // when space or the request cannot be had. Before the queueing nothing is
  // reserved on a throw; a refused queueing leaves the entry reserved.
  void write(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
             const std::string& type, int32_t length, const uint8_t* data);
  // The steps of the store's flows, called by their receivers (I/O threads)
  // and the group sync. None throws; failures are counted and posted.
  void entryDataWritten(const PrimaryKey& primaryKey, uint32_t serial,
                        const FileOperationRef& operation);
  void finishEntryWrite(const PrimaryKey& primaryKey, uint32_t serial);
  void failEntryWrite(const PrimaryKey& primaryKey, uint32_t serial);
  void failEntryHeader(const PrimaryKey& primaryKey, uint32_t serial,
                       const FileOperationRef& operation);
  void deleteWritten(const FileDeleteEntryReceiver::Target& target,
                     const FileOperationRef& operation);
  void failDelete(const FileDeleteEntryReceiver::Target& target);
  void extentWritten(uint32_t location, const FileOperationRef& operation);
  void failExtent(uint32_t location);
  // A read of entry data that completed on the thread that asked for it
  // (its bytes were in the page cache). Nothing of it has run yet: whoever
  // asked calls complete() once it holds none of its own locks, and only
  // then are the object decoded, handed to the owner's insert and the
  // receivers told, on that thread. Empty when the read went to an I/O
  // thread, which completes it there.
  class CompletedRead {
   public:
    CompletedRead() = default;
    explicit CompletedRead(Pt::SmartPointer<Pt::IoRequest> request)
        : request_(std::move(request)) {}
    explicit operator bool() const { return static_cast<bool>(request_); }
    void complete() {
      if (const Pt::SmartPointer<Pt::IoRequest> request = std::move(request_)) {
        request->notify()->ioCompleted(*request);
      }
    }

   private:
    Pt::SmartPointer<Pt::IoRequest> request_;
  };
  // Starts the read of the entry's data for request `requestId`; its
  // completion hands the rebuilt object to the owner's insert, or fails the
  // request. A read served at once from the page cache comes back to be
  // completed by the caller; otherwise it completes on an I/O thread. Throws
  // ExFactoryClassNotFound when no factory serves the entry's type,
  // Pt::ExSystem when the read cannot be queued.
  [[nodiscard]] CompletedRead read(const PrimaryKey& primaryKey, int32_t requestId);
  // Takes the entry out of the tables; its delete header is queued now, or
  // when its own write is settled. False when the store does not hold it.
  bool erase(const PrimaryKey& primaryKey);

  // Clearing (FileManagerClear.cpp). eraseAll erases every entry as erase()
  // does and returns how many. shrinkIfEmpty then waits, as commit() does,
  // for every operation started before it, and when the store holds nothing
  // at that point (no entry, no operation in flight, no delete that failed)
  // cuts the file back to its first extent: it syncs (so every delete header
  // is durable), writes the first extent's header with no link and syncs,
  // truncates the file behind the first extent and syncs. A crash at any
  // step leaves a file that opens with no entry. Returns whether it cut the
  // file back. Throws Pt::ExSystem when a write, sync or the truncation
  // fails; the extents behind the first are then no longer used while the
  // store is open. Same thread rules as commit().
  int32_t eraseAll();
  bool shrinkIfEmpty();

  // Space. The caller of the two allocations holds lock(). Both throw
  // Pt::ExSystem(EFBIG) when growing the file would take it to 2 GiB, and
  // then change nothing.
  void allocateData(uint32_t length, uint32_t& offset, uint32_t& allocatedLength)
      PT_REQUIRES(lock_);
  uint32_t allocateEntryHeader() PT_REQUIRES(lock_);
  // A slot and a range that no header on disk points at any more become
  // free; the slot is the next one handed out.
  void releaseSpace(uint32_t headerOffset, uint32_t dataOffset, uint32_t allocatedLength)
      PT_REQUIRES(lock_);
  // Entries erased to keep the file within Config::fileBudget since the open.
  int32_t budgetEvictions() const { return budgetEvictions_.load(std::memory_order_relaxed); }
  // Writes that failed since the open (data, header, delete, extent, link,
  // or the sync that was to make them durable): each means that something
  // issued since the last commit() may not be in the file.
  int32_t writeFailures() const { return writeFailures_.load(std::memory_order_relaxed); }
  // Whether dependent writes wait for durability (see the class comment).
  bool durableOrdering() const { return groupSync_->durable(); }
  // Operations of this file not yet ended, and group syncs done (tests).
  size_t openOperations() { return operations_.openCount(); }
  uint64_t groupSyncs() { return groupSync_->syncCount(); }

  // The next serial of the process-wide counter.
  static uint32_t NextSerial();

  // The amplification (the file's length over the live entries'
  // allocations, the header, the type table and the extents' blocks) above
  // which a close relocates; 1.1 unless set. Tests lower it to make every
  // close with a gap relocate. Process-wide; any thread.
  static void SetRelocationTrigger(double trigger);
  static double RelocationTrigger();
  // Entries moved by relocations at close in this process (tests).
  static uint64_t RelocatedEntries();

  Pt::Mutex& lock() PT_RETURN_CAPABILITY(lock_) { return lock_; }
  const Pt::SmartPointer<Pt::PtIoDeviceFile>& device() const { return device_; }
  const Pt::SmartPointer<FactoryManager>& factories() const { return factories_; }
  uint32_t minAllocation() const { return minAllocation_; }
  // The live entries the open dropped from the file as damaged (see
  // CacheFileLoader); fixed once the store is open.
  uint32_t droppedEntries() const { return droppedEntries_; }
  // The append frontier; read without the lock (statistics).
  int64_t fileEnd() const { return fileEnd_.load(std::memory_order_relaxed); }

  // Read-only views for tests and diagnostics; the caller holds lock().
  const FreeSpace& freeSpace() const PT_REQUIRES(lock_) { return freeSpace_; }
  const std::deque<uint32_t>& freeEntryHeaders() const PT_REQUIRES(lock_) {
    return freeEntryHeaders_;
  }
  const std::vector<ExtentInfo>& extents() const PT_REQUIRES(lock_) { return extents_; }
  const std::vector<TypeInfo>& types() const PT_REQUIRES(lock_) { return types_; }
  const EntryTable& entries() const PT_REQUIRES(lock_) { return entries_; }
  const std::multimap<PrimaryKey, EntryInfo>& pendingErasures() const PT_REQUIRES(lock_) {
    return pendingErasures_;
  }
  // Whether every table invariant holds (walks everything, in every build);
  // takes lock() itself.
  bool checkInvariants();

 private:
  class Loader;
  struct RelocationFigures {
    uint32_t moved = 0;
    uint64_t bytes = 0;
  };

  static void CheckTypeNames(const FactoryManager& factories);
  EntryInfo reserveEntry(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                         const std::string& type, uint32_t length) PT_REQUIRES(lock_);
  uint32_t typeIdLocked(const std::string& name) const PT_REQUIRES(lock_);
  const std::string& typeNameLocked(uint32_t id) const PT_REQUIRES(lock_);
  void writeDeleteHeader(const PrimaryKey& key, const EntryInfo& info, FileOperationRef operation)
      PT_REQUIRES(lock_);
  void writeEntryHeader(EntryInfo& info) PT_REQUIRES(lock_);
  void issueHeaderOrPark(const PrimaryKey& primaryKey, uint32_t serial) PT_REQUIRES(lock_);
  void dropEntry(uint32_t position) PT_REQUIRES(lock_);
  void forgetEntry(uint32_t position) PT_REQUIRES(lock_);
  void enterEntry(const PrimaryKey& primaryKey, const EntryInfo& info) PT_REQUIRES(lock_);
  void keepWithinBudget(uint64_t want, bool wait) PT_REQUIRES(lock_);
  bool fitsWithinBudget(uint64_t want) const PT_REQUIRES(lock_);
  bool evictForBudget(uint64_t want) PT_REQUIRES(lock_);
  void keyDeleted(const PrimaryKey& primaryKey) PT_REQUIRES(lock_);
  void countWriteFailure() { writeFailures_.fetch_add(1, std::memory_order_relaxed); }
  bool inGivenUpExtent(uint32_t slot) const PT_REQUIRES(lock_);
  bool invariantsHold() const PT_REQUIRES(lock_);
  void giveUpExtentsFrom(size_t index) PT_REQUIRES(lock_);
  void linkExtent(uint32_t location, const FileOperationRef& operation) PT_REQUIRES(lock_);
  void load(Pt::SyncFile& file);
  void repairSalvaged(Pt::SyncFile& file, const std::vector<uint32_t>& droppedSlots,
                      uint32_t chainCutAt) PT_REQUIRES(lock_);
  void trimTrailing(Pt::SyncFile& file, uint64_t claimedEnd, uint64_t fileLength);
  void registerTypes(Pt::SyncFile& file, uint32_t typeTableOffset) PT_REQUIRES(lock_);
  bool canShrink() PT_REQUIRES(lock_);
  void unlinkExtentsBehindFirst(Pt::SyncFile& file) PT_REQUIRES(lock_);
  void dropTablesBehindFirstExtent() PT_REQUIRES(lock_);
  // Advances fileEnd_ by `bytes` and returns where they start; EFBIG when
  // the file would reach 2 GiB.
  uint32_t growFileBy(uint64_t bytes) PT_REQUIRES(lock_);
  uint32_t appendExtent() PT_REQUIRES(lock_);
  // Relocation at close (FileManagerRelocate.cpp).
  RelocationFigures relocateTail();
  bool canRelocate() PT_REQUIRES(lock_);
  double amplificationLocked() const PT_REQUIRES(lock_);
  uint32_t fixedEnd() const PT_REQUIRES(lock_);
  bool relocateRound(RelocationFigures& figures) PT_REQUIRES(lock_);
  bool copyData(const RelocationPlan& plan, const std::vector<uint32_t>& owners) PT_REQUIRES(lock_);
  bool rewriteHeaders(const RelocationPlan& plan, const std::vector<uint32_t>& owners)
      PT_REQUIRES(lock_);
  bool awaitDurable(const std::atomic<int>& failures);
  void cutBehindLastRange() PT_REQUIRES(lock_);

  FileOperations operations_;  // destroyed last: every step refers to it
  const uint32_t minAllocation_;
  EntryReadSink* const readSink_;
  const Pt::SmartPointer<FactoryManager> factories_;
  std::atomic<int64_t> fileEnd_{0};
  // The end of the header, type table and first extent, whichever is last:
  // what shrinkIfEmpty() keeps.
  uint32_t firstExtentEnd_ = 0;
  uint32_t droppedEntries_ = 0;
  FileLock fileLock_;
  Pt::SmartPointer<Pt::PtIoDeviceFile> device_;
  std::unique_ptr<GroupSync> groupSync_;
  std::atomic<int32_t> writeFailures_{0};
  std::atomic<int32_t> budgetEvictions_{0};
  const uint64_t budget_;

  Pt::Mutex lock_;
  FreeSpace freeSpace_ PT_GUARDED_BY(lock_);
  std::deque<uint32_t> freeEntryHeaders_ PT_GUARDED_BY(lock_);
  std::vector<TypeInfo> types_ PT_GUARDED_BY(lock_);
  std::vector<ExtentInfo> extents_ PT_GUARDED_BY(lock_);
  // The entries, with their recency for the budget (least recently used
  // first).
  EntryTable entries_ PT_GUARDED_BY(lock_);
  SecondaryIndex secondaryIndex_ PT_GUARDED_BY(lock_);
  std::multimap<PrimaryKey, EntryInfo> pendingErasures_ PT_GUARDED_BY(lock_);
  // Keys with an erased header that may still be on disk (a header write in
  // flight, or a delete header not yet durable), and how many.
  std::map<PrimaryKey, uint32_t> erasing_ PT_GUARDED_BY(lock_);
  // Keys whose delete header failed: an old header may still be on disk, so
  // no new header of the key is written while the store is open.
  std::set<PrimaryKey> undeletable_ PT_GUARDED_BY(lock_);
  // Data ranges of entries erased for the budget, not yet free again (by
  // offset), their total, and the signal that one came free.
  std::map<uint32_t, uint32_t> evicting_ PT_GUARDED_BY(lock_);
  uint64_t evictingBytes_ PT_GUARDED_BY(lock_) = 0;
  Pt::CondVar spaceFreed_;
  // Slot arrays of extents given up after a failed write or link.
  std::vector<FileRange> givenUpSlots_ PT_GUARDED_BY(lock_);
};

}  // namespace Tarn
