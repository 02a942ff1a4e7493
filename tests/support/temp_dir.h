#pragma once

#include <string>

namespace tarn::test {

// A fresh directory under the system's temporary folder, removed with
// everything in it when the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole-file helpers that bypass Keel, so tests can check what Keel wrote.
std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& bytes);

}  // namespace tarn::test
