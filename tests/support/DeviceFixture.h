// A device on a 1 MiB file of zeros in a temporary folder, with the
// platform started on the engine the test is parameterised with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"
#include "support/IoRecorder.h"
#include "support/TempDir.h"

namespace TarnTest {

class DeviceFixture : public testing::TestWithParam<Pt::IoEngineKind> {
 protected:
  using Bytes = std::vector<uint8_t>;

  void SetUp() override;
  // Clears every test seam (test points, trace, fault injection) and stops
  // the platform.
  void TearDown() override;

  static Pt::SmartPointer<IoRecorder> Recorder(int id = 0);
  // A request at `offset` of `length` bytes of `fill`, reporting to `recorder`.
  static Pt::SmartPointer<Pt::IoRequest> Request(const Pt::SmartPointer<IoRecorder>& recorder,
                                                 int64_t offset, int length, uint8_t fill = 0);
  Bytes fileBytes(int64_t offset, size_t length) const;

  static constexpr int kFileSize = 1 << 20;
  TempDir dir_;
  const std::string path_ = dir_.file("device.bin");
  Pt::SmartPointer<Pt::PtIoDeviceFile> device_;
};

// Test names for the engines: IoUring, ThreadPool, and Split for Automatic.
std::string EngineName(const testing::TestParamInfo<Pt::IoEngineKind>& info);

}  // namespace TarnTest
