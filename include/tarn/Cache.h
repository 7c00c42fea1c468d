// Cache: a persistent object cache on one cache file.
//
// Objects (Cacheable) are kept under a primary key of up to 32 bytes and a
// secondary key of up to 16 bytes, in a bounded memory index in front of the
// file. Everything inserted is written to the file asynchronously, in an order
// that keeps the file consistent without a journal; commit() waits until it
// is on disk. Lookups are asynchronous: find and findCreate return a request
// id at once and deliver the outcome later, exactly once, to a
// CacheableReceiver (see CacheableReceiver.h for when and on which thread).
//
// Ownership: the cache takes its own reference on every object, receiver and
// factory handed to it. The recommended forms say who owns what:
//   - Pt::SmartPointer<...>: shared ownership through the object's own count;
//   - std::shared_ptr<CacheableFactory>: the cache keeps a copy of the
//     shared_ptr for its whole life (the factory's own count is not used);
//   - CacheableFactory& : borrowed; the caller keeps the factory alive until
//     the Cache is destroyed (a factory on the stack or in a std::unique_ptr);
//   - a callable (std::function) in place of a receiver.
// RAW POINTERS TRANSFER OWNERSHIP: a raw pointer passed in with no reference
// of its own is DESTROYED when the cache lets go of it, so pass only the
// result of `new`. Never pass unique_ptr::get() (pass *ptr, or the
// unique_ptr itself moved into a shared_ptr); an object on the calling
// thread's stack passed by address is recognised and left alone.
// The cache owns its file: no other Cache, in this or another process, may
// open the same file meanwhile.
//
// Thread-safety: every operation may be called from any thread, also from
// inside a receiver's callbacks, except commit(), clear() and the destructor
// (all wait for the file's outstanding requests) and none may overlap the
// constructor or the destructor. The destructor must not run on a worker
// thread, in a factory's create(), or in a receiver callback.
//
// Errors: every exception's what() names its subject after the fixed text:
// the path and operation of a file error, the type, or the key. The
// constructors throw std::invalid_argument for a negative size in Config or
// an unknown TARN_IO_ENGINE value, Tarn::ExInvalidTypeName for a factory
// whose type name is empty or longer than 44 bytes, Pt::ExSystem(EILSEQ) for
// a std::filesystem::path that is not UTF-8, Tarn::ExUnsupportedFileVersion
// (a file whose header, type table or extent chain is damaged; damage
// confined to entries drops those entries only, see droppedEntries()),
// Tarn::ExFactoryClassNotFound (the file knows a type no factory serves, or
// two factories serve one type), or Pt::ExSystem (the file cannot be opened,
// created or locked). Keys with a length outside 0..capacity and null
// receivers are refused with std::invalid_argument.
// insert, find and findCreate throw a Pt::Exception, changing nothing, when
// all 65,536 slots of the memory index hold requests in progress and no
// object can be evicted to make room. The callable and future forms throw
// at the call what the receiver forms throw; afterwards they report only
// through the callable or the future.
#pragma once

#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "pt/SmartPointer.h"
#include "tarn/CacheKey.h"
#include "tarn/Cacheable.h"
#include "tarn/CacheableFactory.h"
#include "tarn/CacheableReceiver.h"
#include "tarn/Config.h"
#include "tarn/Export.h"
#include "tarn/Statistics.h"
#include "tarn/TierConfig.h"

namespace Tarn {

class CacheManager;

// The outcome of a find or findCreate, handed to a callable receiver.
struct Outcome {
  enum class Kind { Found, Cancelled, Failed };
  Kind kind;
  int requestId;
  CacheKey<32> key;
  Pt::SmartPointer<Cacheable> cacheable;  // set when kind is Found
  const Pt::Exception* error;             // set when kind is Failed; valid during the call
};

// Called exactly once per request, under the same rules as a
// CacheableReceiver (any thread, possibly inside find itself). Copied by the
// cache; it must be safe to call from another thread.
using OutcomeCallback = std::function<void(const Outcome&)>;

// The I/O engine the process runs its file requests on.
TARN_EXPORT IoEngine ActiveIoEngine();

class TARN_EXPORT Cache {
 public:
  // Opens (or, with config.createIfMissing, creates) the cache file at `path`
  // with one factory per type of object the cache may hold.
  Cache(const wchar_t* path, const Config& config,
        const std::vector<Pt::SmartPointer<CacheableFactory>>& factories);
  // Takes ownership of `factory` (see Ownership above).
  Cache(const wchar_t* path, const Config& config, CacheableFactory* const factory);
  // The same with a std::filesystem::path: a `const char*` or std::string
  // converts to one, its bytes taken as they are (UTF-8).
  Cache(const std::filesystem::path& path, const Config& config,
        const std::vector<Pt::SmartPointer<CacheableFactory>>& factories);
  Cache(const std::filesystem::path& path, const Config& config, CacheableFactory* const factory);
  // Recommended: the factory's lifetime is stated by its holder.
  Cache(const std::filesystem::path& path, const Config& config,
        const Pt::SmartPointer<CacheableFactory>& factory);
  Cache(const std::filesystem::path& path, const Config& config,
        std::shared_ptr<CacheableFactory> factory);
  // Borrowed: `factory` must outlive the Cache; the cache never deletes it.
  Cache(const std::filesystem::path& path, const Config& config, CacheableFactory& factory);
  // With a shared second tier (see SharedTier.h, TierConfig.h): a find or
  // findCreate that misses in memory, among the requests in progress and in
  // the file asks `tier.tier` before the factory runs (findCreate) or before
  // the key counts as nowhere (find); a value found there is checked,
  // decoded by the type's factory and inserted as if read from the file
  // (memory and file). An object the factory generates is offered to the
  // tier in the background. Failure is a miss: a tier that is down, slow or
  // answers with damaged values never fails a request; the first lookup of
  // an outage posts one Pt::Exception ("Shared Tier Unavailable!") to
  // Pt::Exception::Post, and the next is posted only after the tier has
  // answered in between. The tier's callbacks come on its own threads; the
  // cache decodes and inserts on its worker threads. A TierConfig without a
  // tier makes the cache behave as one built without it.
  // Ownership: `tier` is copied; the cache keeps its shared_ptr to the tier
  // until the destructor returns, and the destructor waits until every
  // lookup it started has called back (at most the lookup deadline).
  // Throws, besides what the other constructors throw,
  // std::invalid_argument when a tier is given with a keyNamespace longer
  // than 64 bytes or a deadline below 1 ms.
  Cache(const std::filesystem::path& path, const Config& config,
        const std::vector<Pt::SmartPointer<CacheableFactory>>& factories, const TierConfig& tier);
  Cache(const std::filesystem::path& path, const Config& config,
        std::shared_ptr<CacheableFactory> factory, const TierConfig& tier);
  // Waits until the shared tier has answered every lookup of this cache (at
  // most its deadline), ends every waiting request (receivers hear
  // cancelled), waits for the file's outstanding writes, and closes the
  // file. No tier callback reaches the cache after it returns.
  ~Cache();
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  // Holds `cacheable` in memory and writes it to the file unless the file
  // holds the key already; receivers waiting for the key get it. An object
  // that fails verify() is not kept (nobody is told but waiting receivers).
  // Nor is one whose verify(), size() or encode() throws: waiting receivers
  // hear failed() (anything but a Pt::Exception wrapped in one) and the
  // exception passes on to the caller. Throws ExFactoryClassNotFound when no
  // factory serves its type.
  void insert(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
              Cacheable* cacheable);  // adopts a raw `cacheable` (see Ownership)
  void insert(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
              const Pt::SmartPointer<Cacheable>& cacheable);
  // Looks the key up in memory, among requests in progress, then in the file.
  // Returns the request id, or 0 when the key is nowhere (then `receiver` is
  // never called). With a shared tier, a key found nowhere locally is then
  // looked up in the tier under each type the cache's factories serve, in
  // their order: find returns the request id, and the receivers hear found
  // (a value the tier held) or cancelled (the tier has none).
  int find(const CacheKey<32>& primaryKey, CacheableReceiver* const receiver);
  int find(const CacheKey<32>& primaryKey, const Pt::SmartPointer<CacheableReceiver>& receiver);
  // `onOutcome` in place of a receiver; an empty function is refused with
  // std::invalid_argument.
  int find(const CacheKey<32>& primaryKey, OutcomeCallback onOutcome);
  // The object, or null when the key is nowhere or the request was
  // cancelled; a failed request stores its exception in the future (the
  // Tarn or Pt::ExSystem class it had; other classes as Pt::Exception).
  // Blocking on the future inside a receiver or a factory may deadlock.
  std::future<Pt::SmartPointer<Cacheable>> findFuture(const CacheKey<32>& primaryKey);
  // As find, and when the key is nowhere, has the factory of `type` create it
  // on a worker thread. Never returns 0. Throws ExFactoryClassNotFound when
  // the key is nowhere and no factory serves `type`; then `receiver` is not
  // called.
  int findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                 const std::string& type, CacheableReceiver* const receiver);
  int findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                 const std::string& type, const Pt::SmartPointer<CacheableReceiver>& receiver);
  int findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                 const std::string& type, OutcomeCallback onOutcome);
  // As findFuture, generating a missing object; null only when cancelled.
  std::future<Pt::SmartPointer<Cacheable>> findCreateFuture(const CacheKey<32>& primaryKey,
                                                            const CacheKey<16>& secondaryKey,
                                                            const std::string& type);
  // The primary keys the file holds under `secondaryKey`, sorted.
  void findPrimaryKeys(const CacheKey<16>& secondaryKey, std::vector<CacheKey<32>>& primaryKeys);

  // Removes the key from memory and from the file; waiting receivers hear
  // cancelled.
  void erase(const CacheKey<32>& primaryKey);
  // Erases everything: every object leaves memory (the cache's references
  // go; waiting receivers hear cancelled, as for erase) and every entry
  // leaves the file through the same zero headers as erase. It then waits,
  // as commit() does, for those erases and every file operation issued
  // before it, and when the file holds nothing at that moment cuts it back
  // to its empty size (a new file's 262,960 bytes): the extents behind the
  // first are unlinked durably before the file is truncated, so a kill or a
  // power loss at any moment of clear() leaves a file that opens with each
  // entry either absent or exact. An entry that another thread inserts while
  // clear() runs either is erased or stays; when one stays, the file is not
  // cut back. Same thread rules as commit(). Throws Pt::ExSystem when the
  // zero headers cannot be queued, or when the unlink, the truncation or a
  // sync fails: what was erased stays erased, and the file may then stay
  // longer than empty until it is reopened.
  void clear();
  // Removes the key from memory only; waiting receivers hear cancelled.
  void purge(const CacheKey<32>& primaryKey);
  // The receivers of `requestId` hear cancelled; the read or generation goes
  // on and its result is cached.
  void cancel(int requestId);
  void cancelAll();
  // Whether the key is in memory, in progress, or in the file.
  bool isCached(const CacheKey<32>& primaryKey);
  // Waits until every file operation this cache had issued when it was
  // called (an insert's data and header, an erase's zero header, an
  // extent and its link) is done, then flushes the file: everything issued
  // before commit() survives a crash, and, unless Config::relaxedOrdering is
  // set, a power loss. Operations issued while it waits are not waited for,
  // so it returns while other threads keep inserting. Throws Pt::ExSystem
  // when the flush fails.
  void commit();
  // Writes to the cache file that failed since the open (data, entry header,
  // zero header, extent, link, or the sync meant to make one durable). A
  // count that grew since the last commit() means that something issued
  // before it may not be in the file; the objects concerned stay served from
  // memory while they are held there.
  int32_t fileWriteFailures();
  // Entries erased from the cache file since the open to keep it within
  // Config::fileBudget (or below the format's 2 GiB limit).
  int32_t fileEvictions();
  Statistics& statistics(Statistics& statistics);
  // How many entries the open dropped from a damaged cache file: entries
  // whose data range lay past the end of the file or overlapped another
  // record, whose lengths, keys or type could not be right, or that were a
  // second live header of one primary key. Dropped entries are gone (the
  // open cleared their slots) and their space is free again; 0 for a sound
  // file. Fixed once the constructor returns.
  int32_t droppedEntries();
  // What the shared tier served, refused and was offered since the
  // construction; all zero for a cache without a tier. Any thread.
  TierStatistics tierStatistics();

 private:
  friend struct CacheInternals;  // lets tests and diagnostics reach the manager
  CacheManager* manager_;
};

}  // namespace Tarn
