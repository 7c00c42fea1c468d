#include "store/SpaceReport.h"

#include "core/RaiseSites.h"
#include "platform/SyncFile.h"
#include "store/CacheFileLoader.h"

namespace Tarn {

double SpaceAmplification(const std::string& path) {
  const Pt::SyncFile file = Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, kOpenFile.where);
  CacheFileLoader::Visitor ignore;
  const CacheFileLoader::Summary summary = CacheFileLoader::Load(file, ignore);
  const uint64_t needed = summary.allocatedBytes + kFileHeaderSize + kTypeTableSize +
                          uint64_t{summary.extentCount} * kExtentBlockSize;
  return static_cast<double>(summary.fileLength) / static_cast<double>(needed);
}

}  // namespace Tarn
