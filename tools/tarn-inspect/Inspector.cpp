#include "Inspector.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <string_view>

#include "Json.h"
#include "core/RaiseSites.h"
#include "platform/SyncFile.h"

namespace TarnInspect {
namespace {

using Tarn::CacheFileLoader;
using Tarn::EntryHeader;
using Tarn::ExtentHeader;
using Tarn::TypeRecord;

// Collects what the reports print; entries only when they are wanted, since
// a large file holds millions.
class Collector : public CacheFileLoader::Visitor {
 public:
  Collector(Inspection& inspection, bool withEntries)
      : inspection_(inspection), withEntries_(withEntries) {}

  void onType(const TypeRecord& record) override { inspection_.types.push_back(record); }
  void onExtent(const ExtentHeader& header, uint32_t location) override {
    inspection_.extents.emplace_back(location, header);
  }
  void onEntry(uint32_t slotOffset, const EntryHeader& header) override {
    if (withEntries_) inspection_.entries.emplace_back(slotOffset, header);
  }
  // Dropped entries are few (a sound file has none) and verify lists them.
  void onDroppedEntry(uint32_t slotOffset, const EntryHeader& header,
                      Tarn::DropReason reason) override {
    inspection_.dropped.push_back({slotOffset, header, reason});
  }

 private:
  Inspection& inspection_;
  const bool withEntries_;
};

// The file, opened read-only through the library's own file calls.
Pt::SyncFile OpenReadOnly(const std::string& path) {
  try {
    return Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, Tarn::kOpenFile.where);
  } catch (const Pt::ExSystem& error) {
    throw CannotOpen("cannot open " + path + ": " + std::strerror(error.code()));
  }
}

// Keys are shown as text in quotes when every byte is printable ASCII,
// else as hex behind "0x", so that the two can never be confused.
bool Printable(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

std::string Hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    const auto byte = static_cast<uint8_t>(c);
    out += kDigits[byte >> 4];
    out += kDigits[byte & 0xF];
  }
  return out;
}

std::string Shown(std::string_view bytes) {
  return Printable(bytes) ? "\"" + std::string(bytes) + "\"" : "0x" + Hex(bytes);
}

std::string TypeName(const Inspection& inspection, uint16_t typeId) {
  // The loader keeps only entries whose ids the table holds; a dropped one
  // may name any.
  if (typeId == 0 || typeId > inspection.types.size()) return "#" + std::to_string(typeId);
  return inspection.types.at(typeId - 1u).typeName();
}

struct FreeSpaceFigures {
  uint64_t freeBytes = 0;
  uint64_t largestGap = 0;
  // 0 when all free space is one range (or there is none), towards 1 the
  // more it is split: 1 - largest gap / free bytes.
  double fragmentation = 0;
};

FreeSpaceFigures FreeSpaceOf(const CacheFileLoader::Summary& summary) {
  FreeSpaceFigures figures;
  for (const Tarn::FileRange& gap : summary.gaps) {
    figures.freeBytes += gap.length;
    figures.largestGap = std::max<uint64_t>(figures.largestGap, gap.length);
  }
  if (figures.freeBytes > 0) {
    figures.fragmentation =
        1.0 - static_cast<double>(figures.largestGap) / static_cast<double>(figures.freeBytes);
  }
  return figures;
}

void WriteHeaderJson(JsonWriter& json, const Tarn::FileHeader& header) {
  const std::pair<const char*, uint32_t> fields[] = {
      {"version", header.version},
      {"headerSize", header.headerSize},
      {"typeRecordSize", header.typeRecordSize},
      {"typeRecordCount", header.typeRecordCount},
      {"typeTableOffset", header.typeTableOffset},
      {"extentHeaderSize", header.extentHeaderSize},
      {"extentCount", header.extentCount},
      {"firstExtentOffset", header.firstExtentOffset},
  };
  json.beginObject();
  for (const auto& [name, value] : fields) {
    json.key(name);
    json.number(value);
  }
  json.endObject();
}

// The figures that every command's JSON shares.
void WriteSummaryJson(JsonWriter& json, const Inspection& inspection) {
  const CacheFileLoader::Summary& summary = inspection.summary;
  const FreeSpaceFigures space = FreeSpaceOf(summary);
  const std::pair<const char*, uint64_t> figures[] = {
      {"fileLength", summary.fileLength},         {"typeCount", inspection.types.size()},
      {"extentCount", summary.extentCount},       {"liveEntries", summary.liveEntries},
      {"freeSlots", summary.freeSlots},           {"droppedEntries", summary.droppedEntries},
      {"chainCutAt", summary.chainCutAt},         {"dataBytes", summary.dataBytes},
      {"allocatedBytes", summary.allocatedBytes}, {"freeBytes", space.freeBytes},
      {"gapCount", summary.gaps.size()},          {"largestGap", space.largestGap},
      {"trailingBytes", summary.trailingBytes},
  };
  for (const auto& [name, value] : figures) {
    json.key(name);
    json.number(value);
  }
  json.key("fragmentation");
  json.real(space.fragmentation);
}

void WriteTypesJson(JsonWriter& json, const std::vector<TypeRecord>& types) {
  json.beginArray();
  for (const TypeRecord& type : types) {
    json.beginObject();
    json.field("id", type.id);
    json.field("name", type.typeName());
    json.endObject();
  }
  json.endArray();
}

void WriteExtentsJson(JsonWriter& json, const Inspection& inspection) {
  json.beginArray();
  for (const auto& [location, header] : inspection.extents) {
    json.beginObject();
    json.field("location", location);
    json.field("entryCount", header.entryCount);
    json.field("entriesOffset", header.entriesOffset);
    json.field("nextExtent", header.nextExtent);
    json.endObject();
  }
  json.endArray();
}

void WriteGapsJson(JsonWriter& json, const std::vector<Tarn::FileRange>& gaps) {
  json.beginArray();
  for (const Tarn::FileRange& gap : gaps) {
    json.beginObject();
    json.field("offset", gap.offset);
    json.field("length", gap.length);
    json.endObject();
  }
  json.endArray();
}

void WriteInfoJson(std::ostream& out, const Inspection& inspection) {
  JsonWriter json(out);
  json.beginObject();
  json.field("file", inspection.path);
  json.key("header");
  WriteHeaderJson(json, inspection.summary.header);
  WriteSummaryJson(json, inspection);
  json.key("types");
  WriteTypesJson(json, inspection.types);
  json.key("extents");
  WriteExtentsJson(json, inspection);
  json.key("gaps");
  WriteGapsJson(json, inspection.summary.gaps);
  json.endObject();
}

void WriteInfoText(std::ostream& out, const Inspection& inspection) {
  const CacheFileLoader::Summary& summary = inspection.summary;
  const Tarn::FileHeader& header = summary.header;
  const FreeSpaceFigures space = FreeSpaceOf(summary);
  out << "file             " << inspection.path << "\n"
      << "length           " << summary.fileLength << " bytes\n"
      << "version          0x" << std::hex << header.version << std::dec << " ("
      << (header.version >> 16) << "." << (header.version & 0xFFFF) << ")\n"
      << "header           headerSize " << header.headerSize << ", typeRecordSize "
      << header.typeRecordSize << ", typeRecordCount " << header.typeRecordCount
      << ", typeTableOffset " << header.typeTableOffset << ", extentHeaderSize "
      << header.extentHeaderSize << ", extentCount " << header.extentCount << ", firstExtentOffset "
      << header.firstExtentOffset << "\n"
      << "types            " << inspection.types.size() << "\n";
  for (const TypeRecord& type : inspection.types) {
    out << "  " << std::setw(4) << type.id << "  " << Shown(type.typeName()) << "\n";
  }
  out << "extents          " << summary.extentCount << "\n";
  for (const auto& [location, extent] : inspection.extents) {
    out << "  at " << location << ": " << extent.entryCount << " slots at " << extent.entriesOffset
        << ", next " << extent.nextExtent << "\n";
  }
  out << "live entries     " << summary.liveEntries << "\n"
      << "dropped entries  " << summary.droppedEntries << "\n"
      << "free slots       " << summary.freeSlots << "\n"
      << "data bytes       " << summary.dataBytes << "\n"
      << "allocated bytes  " << summary.allocatedBytes << "\n"
      << "free bytes       " << space.freeBytes << " in " << summary.gaps.size()
      << " gaps, the largest " << space.largestGap << "\n"
      << "trailing bytes   " << summary.trailingBytes << "\n"
      << "fragmentation    " << std::fixed << std::setprecision(3) << space.fragmentation
      << std::defaultfloat << "\n";
}

void WriteEntryJson(JsonWriter& json, const Inspection& inspection, uint32_t slot,
                    const EntryHeader& entry) {
  const std::string primary(entry.primaryKeyValue().view());
  const std::string secondary(entry.secondaryKeyValue().view());
  json.beginObject();
  json.field("slot", slot);
  json.field("type", TypeName(inspection, entry.typeId));
  json.field("typeId", entry.typeId);
  json.field("primaryKeyHex", Hex(primary));
  json.field("secondaryKeyHex", Hex(secondary));
  if (Printable(primary)) {
    json.field("primaryKey", primary);
  }
  if (Printable(secondary)) {
    json.field("secondaryKey", secondary);
  }
  json.field("dataOffset", entry.dataOffset);
  json.field("dataLength", entry.dataLength);
  json.field("allocatedLength", entry.allocatedLength);
  json.endObject();
}

void WriteEntriesText(std::ostream& out, const Inspection& inspection) {
  out << std::left;
  out << std::setw(11) << "SLOT" << std::setw(12) << "DATA" << std::setw(11) << "LENGTH"
      << std::setw(11) << "ALLOCATED"
      << "TYPE  PRIMARY  SECONDARY\n";
  for (const auto& [slot, entry] : inspection.entries) {
    out << std::setw(11) << slot << std::setw(12) << entry.dataOffset << std::setw(11)
        << entry.dataLength << std::setw(11) << entry.allocatedLength
        << Shown(TypeName(inspection, entry.typeId)) << "  "
        << Shown(entry.primaryKeyValue().view()) << "  " << Shown(entry.secondaryKeyValue().view())
        << "\n";
  }
  out << std::right;
}

// What an open of the file would drop or cut, one line each.
void WriteSalvageText(std::ostream& out, const Inspection& inspection) {
  if (inspection.summary.chainCutAt != 0) {
    out << "chain cut: the link of the extent at " << inspection.summary.chainCutAt
        << " leads to no extent; an open ends the chain there\n";
  }
  if (inspection.dropped.empty()) return;
  out << inspection.dropped.size() << " entries an open drops as damaged:\n";
  for (const DroppedEntry& entry : inspection.dropped) {
    out << "  slot " << entry.slot << ": " << Tarn::DropReasonName(entry.reason) << " (key "
        << Shown(entry.header.primaryKeyValue().view()) << ", data " << entry.header.dataOffset
        << "+" << entry.header.allocatedLength << ")\n";
  }
}

void WriteDroppedJson(JsonWriter& json, const Inspection& inspection) {
  json.beginArray();
  for (const DroppedEntry& entry : inspection.dropped) {
    json.beginObject();
    json.field("slot", entry.slot);
    json.field("reason", std::string(Tarn::DropReasonName(entry.reason)));
    json.field("primaryKeyHex", Hex(entry.header.primaryKeyValue().view()));
    json.field("dataOffset", entry.header.dataOffset);
    json.field("allocatedLength", entry.header.allocatedLength);
    json.endObject();
  }
  json.endArray();
}

}  // namespace

Inspection Inspect(const std::string& path, bool withEntries) {
  const Pt::SyncFile file = OpenReadOnly(path);
  Inspection inspection;
  inspection.path = path;
  Collector collector(inspection, withEntries);
  inspection.summary = CacheFileLoader::Load(file, collector);
  return inspection;
}

void PrintInfo(std::ostream& out, const Inspection& inspection, bool json) {
  if (json) {
    WriteInfoJson(out, inspection);
  } else {
    WriteInfoText(out, inspection);
  }
}

void PrintEntries(std::ostream& out, const Inspection& inspection, bool json) {
  if (!json) {
    WriteEntriesText(out, inspection);
    return;
  }
  JsonWriter writer(out);
  writer.beginObject();
  writer.key("file");
  writer.text(inspection.path);
  writer.key("entries");
  writer.beginArray();
  for (const auto& [slot, entry] : inspection.entries) {
    WriteEntryJson(writer, inspection, slot, entry);
  }
  writer.endArray();
  writer.endObject();
}

void PrintVerified(std::ostream& out, const Inspection& inspection, bool json) {
  if (json) {
    JsonWriter writer(out);
    writer.beginObject();
    writer.key("ok");
    writer.flag(true);
    writer.key("file");
    writer.text(inspection.path);
    WriteSummaryJson(writer, inspection);
    writer.key("dropped");
    WriteDroppedJson(writer, inspection);
    writer.endObject();
    return;
  }
  const CacheFileLoader::Summary& summary = inspection.summary;
  out << "ok: " << inspection.types.size() << " types, " << summary.extentCount << " extents, "
      << summary.liveEntries << " live entries, " << summary.freeSlots << " free slots, "
      << FreeSpaceOf(summary).freeBytes << " free bytes in " << summary.gaps.size() << " gaps, "
      << summary.trailingBytes << " trailing bytes\n";
  WriteSalvageText(out, inspection);
}

void PrintRejected(std::ostream& out, const std::string& path, const Pt::Exception& error,
                   bool json) {
  const Pt::ExWhere& where = error.where();
  // A failed read says only what the system said; name the step that failed.
  const bool readFailed = dynamic_cast<const Pt::ExSystem*>(&error) != nullptr;
  if (!json) {
    out << path << ": " << (readFailed ? "a record cannot be read whole: " : "") << error.what()
        << " (raised at " << where.file << ":" << where.line << ")\n";
    return;
  }
  JsonWriter writer(out);
  writer.beginObject();
  writer.key("ok");
  writer.flag(false);
  writer.key("file");
  writer.text(path);
  writer.key("error");
  writer.text(error.what());
  writer.key("readFailed");
  writer.flag(readFailed);
  writer.key("raisedIn");
  writer.text(where.file);
  writer.key("raisedAtLine");
  writer.number(static_cast<uint64_t>(where.line));
  writer.endObject();
}

// Decodes UTF-8 strictly: no overlong forms, surrogates or values past
// U+10FFFF, so that the library's own check of the wide path agrees.
std::optional<std::wstring> Utf8ToWide(std::string_view text) {
  std::wstring wide;
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const int extra = lead < 0x80       ? 0
                      : lead >> 5 == 6  ? 1
                      : lead >> 4 == 14 ? 2
                      : lead >> 3 == 30 ? 3
                                        : -1;
    if (extra < 0 || i + static_cast<size_t>(extra) > text.size() - 1) return std::nullopt;
    uint32_t value = extra == 0 ? lead : lead & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if (next >> 6 != 2) return std::nullopt;
      value = value << 6 | (next & 0x3F);
    }
    static constexpr uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (value < kLeast[extra] || value > 0x10FFFF || (value >= 0xD800 && value < 0xE000)) {
      return std::nullopt;
    }
    wide.push_back(static_cast<wchar_t>(value));
    i += static_cast<size_t>(extra) + 1;
  }
  return wide;
}

}  // namespace TarnInspect
