#include "tevra/core/ini_file.h"

#include <cstdint>
#include <string>

#include "tevra/osa/exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    tevra::core::IniFile::Parse(std::string(reinterpret_cast<const char*>(data), size), "input");
  } catch (const tevra::osa::Exception&) {
  }
  return 0;
}
