// One input in three chunkings: whole, byte by byte, and in pieces of a size that its last byte
// chooses. Everything observable must agree, after every piece that is fed.
#include "vigila/client/vigila_xml.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using vigila::client::VigilaXml;

namespace {

bool Same(const char* left, const char* right) {
  return left == nullptr || right == nullptr ? left == right : std::strcmp(left, right) == 0;
}

bool Same(const VigilaXml& left, const VigilaXml& right) {
  return left.Stopped() == right.Stopped() && left.Result() == right.Result() &&
         Same(left.Username(), right.Username()) && Same(left.Password(), right.Password()) &&
         Same(left.Type(), right.Type()) && Same(left.Nonce(), right.Nonce()) &&
         Same(left.Created(), right.Created()) &&
         left.ElementWithoutNs() == right.ElementWithoutNs();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  const size_t piece = size_t{data[size - 1]} + 1;

  VigilaXml whole, pieces, bytes;
  whole.Parse(text, size);
  for (size_t at = 0; at < size; at += piece) {
    const size_t length = std::min(piece, size - at);
    pieces.Parse(text + at, length);
    for (size_t i = 0; i < length; ++i) bytes.Parse(text + at + i, 1);
    if (!Same(pieces, bytes)) std::abort();
  }
  if (!Same(whole, bytes)) std::abort();
  return 0;
}
