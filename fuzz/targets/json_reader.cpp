// Whatever is read is written as a document that reads again.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "json/elements.h"
#include "json/reader.h"
#include "json/writer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  json::Object object;
  try {
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    json::Reader::Read(object, input);
  } catch (const json::Exception&) {
    return 0;
  }
  std::stringstream written;
  json::Writer::Write(object, written);
  json::Object again;
  try {
    json::Reader::Read(again, written);
  } catch (const json::Exception&) {
    std::abort();
  }
  return 0;
}
