// A fresh temporary folder for one test, removed with everything in it when
// the fixture is destroyed.
#pragma once

#include <filesystem>
#include <string>

namespace TarnTest {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // `name` inside the folder, as a narrow and as a wide path.
  std::string file(const std::string& name) const;
  std::wstring wfile(const std::string& name) const;

 private:
  std::filesystem::path path_;
};

}  // namespace TarnTest
