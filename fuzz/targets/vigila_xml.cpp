// One input, two chunkings: everything observable must agree. The first byte chooses the piece
// size.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = size_t{data[0]} + 1;
  const char* text = reinterpret_cast<const char*>(data + 1);
  const size_t length = size - 1;

  VigilaXml whole;
  whole.Parse(text, length);
  VigilaXml pieces;
  for (size_t at = 0; at < length; at += piece) {
    pieces.Parse(text + at, std::min(piece, length - at));
  }
  if (whole.Stopped() != pieces.Stopped() || whole.Result() != pieces.Result() ||
      !Same(whole.Username(), pieces.Username()) || !Same(whole.Password(), pieces.Password()) ||
      !Same(whole.Type(), pieces.Type()) || !Same(whole.Nonce(), pieces.Nonce()) ||
      !Same(whole.Created(), pieces.Created()) ||
      whole.ElementWithoutNs() != pieces.ElementWithoutNs()) {
    std::abort();
  }
  return 0;
}
