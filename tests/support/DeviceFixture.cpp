#include "support/DeviceFixture.h"

#include <cstring>
#include <fstream>

#include "platform/IoFaultInjection.h"
#include "platform/IoTrace.h"
#include "platform/TestPoint.h"
#include "support/RawCacheFile.h"

namespace TarnTest {

void DeviceFixture::SetUp() {
  Pt::Config config;
  config.asyncFileIo = true;
  config.ioEngine = GetParam();
  Pt::PlatformInit(config);
  std::ofstream(path_, std::ios::binary).write(std::string(kFileSize, '\0').data(), kFileSize);
  device_ =
      Pt::PtIoDeviceFile::Create(dir_.wfile("device.bin").c_str(), Pt::PtIoDeviceFile::ReadWrite);
}

void DeviceFixture::TearDown() {
  Pt::TestPoint::Unwatch();
  Pt::IoTrace::Stop();
  Pt::IoFaultInjection::Clear();
  device_.reset();
  Pt::PlatformUninit();
}

Pt::SmartPointer<IoRecorder> DeviceFixture::Recorder(int id) {
  return Pt::SmartPointer<IoRecorder>(new IoRecorder(id));
}

Pt::SmartPointer<Pt::IoRequest> DeviceFixture::Request(const Pt::SmartPointer<IoRecorder>& recorder,
                                                       int64_t offset, int length, uint8_t fill) {
  auto request = Pt::IoRequest::Create(recorder.get(), length, Pt::IoRequest::Normal);
  request->setOffset(offset);
  std::memset(request->data(), fill, static_cast<size_t>(length));
  return request;
}

DeviceFixture::Bytes DeviceFixture::fileBytes(int64_t offset, size_t length) const {
  const Bytes bytes = ReadFileBytes(path_);
  return Bytes(bytes.begin() + offset, bytes.begin() + offset + static_cast<int64_t>(length));
}

std::string EngineName(const testing::TestParamInfo<Pt::IoEngineKind>& info) {
  switch (info.param) {
    case Pt::IoEngineKind::IoUring:
      return "IoUring";
    case Pt::IoEngineKind::ThreadPool:
      return "ThreadPool";
    default:
      return "Split";  // reads on the ring, writes on the pool
  }
}

}  // namespace TarnTest
