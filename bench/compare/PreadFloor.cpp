// The floor for reads: the values back to back in a plain file, each read
// with one pread of its bytes from the page cache.
#include <fcntl.h>
#include <unistd.h>

#include "Workload.h"

namespace Compare {

namespace {

class PreadFloor : public Library {
 public:
  PreadFloor(const std::string& folder, const Values& values)
      : path_(folder + "/values.bin"), values_(values), buffer_(values.size()) {}
  ~PreadFloor() override { close(); }

  void create() override {
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd_ < 0) Fail("pread: open");
  }
  void open() override {
    fd_ = ::open(path_.c_str(), O_RDONLY);
    if (fd_ < 0) Fail("pread: open");
  }
  void close() override {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  void load(uint32_t count) override {
    for (uint32_t id = 0; id < count; ++id) {
      const std::span<const uint8_t> value = values_.of(id);
      if (pwrite(fd_, value.data(), value.size(), offsetOf(id)) !=
          static_cast<ssize_t>(value.size())) {
        Fail("pread: pwrite");
      }
    }
    if (fdatasync(fd_) != 0) Fail("pread: fdatasync");
  }
  void read(const std::vector<uint64_t>& ids) override {
    for (const uint64_t id : ids) {
      if (pread(fd_, buffer_.data(), buffer_.size(), offsetOf(id)) !=
              static_cast<ssize_t>(buffer_.size()) ||
          !values_.matches(id, buffer_.data(), buffer_.size())) {
        Fail("pread: wrong bytes");
      }
    }
  }
  void getOrCreate(const std::vector<uint64_t>&) override {}

 private:
  off_t offsetOf(uint64_t id) const { return static_cast<off_t>(id * values_.size()); }

  std::string path_;
  const Values& values_;
  std::vector<uint8_t> buffer_;
  int fd_ = -1;
};

}  // namespace

std::unique_ptr<Library> MakePread(const std::string& folder, const Values& values) {
  return std::make_unique<PreadFloor>(folder, values);
}

}  // namespace Compare
