#include "support/TempDir.h"

#include <stdlib.h>

#include <stdexcept>
#include <system_error>

namespace TarnTest {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const {
  return (path_ / name).string();
}

std::wstring TempDir::wfile(const std::string& name) const {
  return (path_ / name).wstring();
}

}  // namespace TarnTest
