// What tarn-inspect reads from a cache file, and the reports it prints.
//
// The inspector opens the file read-only and takes no lock, so it can look
// at the file of a running cache; it reads the file with the same loader,
// and so the same checks, as an open does, and never writes. Where an open
// would salvage a damaged file (drop entries, cut the extent chain), verify
// still says ok and lists what the open would drop.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pt/Exception.h"
#include "store/CacheFileLoader.h"
#include "store/FileFormat.h"

namespace TarnInspect {

// The file could not be opened; what() says why.
class CannotOpen : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A live-looking slot that an open drops, and why.
struct DroppedEntry {
  uint32_t slot = 0;
  Tarn::EntryHeader header;
  Tarn::DropReason reason = Tarn::DropReason::KeyDamaged;
};

struct Inspection {
  std::string path;
  Tarn::CacheFileLoader::Summary summary;
  std::vector<Tarn::TypeRecord> types;
  std::vector<std::pair<uint32_t, Tarn::ExtentHeader>> extents;  // location, header
  std::vector<std::pair<uint32_t, Tarn::EntryHeader>> entries;   // slot offset, header
  std::vector<DroppedEntry> dropped;                             // always collected
};

// Loads the file at `path`; the live entries are kept only when
// `withEntries` asks for them. Throws CannotOpen, or whatever the loader
// throws for a file it rejects.
Inspection Inspect(const std::string& path, bool withEntries);

// `text` (UTF-8) as a wide string; nullopt when it is not valid UTF-8.
std::optional<std::wstring> Utf8ToWide(std::string_view text);

void PrintInfo(std::ostream& out, const Inspection& inspection, bool json);
void PrintEntries(std::ostream& out, const Inspection& inspection, bool json);
void PrintVerified(std::ostream& out, const Inspection& inspection, bool json);
// Why the loader rejected the file at `path`: the message and where the
// library raised it.
void PrintRejected(std::ostream& out, const std::string& path, const Pt::Exception& error,
                   bool json);

}  // namespace TarnInspect
