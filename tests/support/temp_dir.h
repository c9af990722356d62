#ifndef SUPPORT_TEMP_DIR_H_
#define SUPPORT_TEMP_DIR_H_

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace support {

// A new directory of one's own, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string name = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vt-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  // Writes a whole file and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream stream(File(name), std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!stream.flush()) throw std::system_error(errno, std::generic_category(), File(name));
    return File(name);
  }
  // The whole file; empty when there is none.
  std::string Read(const std::string& name) const {
    std::ifstream stream(File(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }

 private:
  std::string path_;
};

}  // namespace support

#endif  // SUPPORT_TEMP_DIR_H_
