// What the file store knows of one entry of its file.
#pragma once

#include <cstdint>

#include "store/FileFormat.h"
#include "store/FileOperations.h"

namespace Tarn {

// An entry goes through stages: Data (its data write is in flight or waits
// for a sync), Parked (data durable, header waiting for an earlier header of
// the key to be durably deleted), Header (header write in flight), Settled.
enum class FileEntryStage : uint8_t { Data, Parked, Header, Settled };

struct FileEntryInfo {
  EntryHeader header;
  uint32_t headerOffset = 0;
  uint32_t serial = 0;
  FileEntryStage stage = FileEntryStage::Settled;
  FileOperationRef operation;       // the write's, until Settled
  FileOperationRef eraseOperation;  // while its erase is pending: the erase's
  bool writePending() const { return stage != FileEntryStage::Settled; }
};

}  // namespace Tarn
