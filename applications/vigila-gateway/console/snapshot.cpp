#include "vigila-gateway/console/snapshot.h"

#include <string_view>

namespace vigila::gateway {
namespace {

using namespace std::string_view_literals;

constexpr unsigned kColumns = 8;  // of blocks of 8 by 8 pixels, each of one grey
constexpr unsigned kRows = 6;

// One table for all coefficients' steps (all 8), one code per size of the first coefficient (four
// bits each, 0 to 11), and for the others only "end of block" (one bit).
constexpr std::string_view kStart = "\xff\xd8\xff\xdb\x00\x43\x00"sv;
constexpr std::string_view kFrame = "\xff\xc0\x00\x0b\x08\x00\x30\x00\x40\x01\x01\x11\x00"sv;
constexpr std::string_view kFirstCodes =
    "\xff\xc4\x00\x1f\x00\x00\x00\x00\x0c\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b"sv;
constexpr std::string_view kOtherCodes =
    "\xff\xc4\x00\x14\x10\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"sv;
constexpr std::string_view kScan = "\xff\xda\x00\x08\x01\x01\x00\x00\x3f\x00"sv;
constexpr std::string_view kEnd = "\xff\xd9"sv;

class BitWriter final {
 public:
  void Put(unsigned value, unsigned bits) {
    for (unsigned i = bits; i > 0; --i) PutBit(value >> (i - 1) & 1);
  }
  std::string Finish() {
    while (used_ != 0) PutBit(1);
    return bytes_;
  }

 private:
  void PutBit(unsigned bit) {
    byte_ = byte_ << 1 | bit;
    if (++used_ < 8) return;
    bytes_.push_back(static_cast<char>(byte_));
    if (byte_ == 0xff) bytes_.push_back('\0');  // or it would start a marker
    byte_ = 0;
    used_ = 0;
  }

  std::string bytes_;
  unsigned byte_ = 0;
  unsigned used_ = 0;
};

void PutBlock(BitWriter& writer, int difference) {
  const unsigned magnitude = static_cast<unsigned>(difference < 0 ? -difference : difference);
  unsigned size = 0;
  while (magnitude >> size != 0) ++size;
  writer.Put(size, 4);
  writer.Put(difference < 0 ? ~magnitude & ((1u << size) - 1) : magnitude, size);
  writer.Put(0, 1);
}

}  // namespace

std::string MakeSnapshot(unsigned number) {
  std::string picture(kStart);
  picture.append(64, '\x08');
  picture.append(kFrame).append(kFirstCodes).append(kOtherCodes).append(kScan);
  BitWriter writer;
  int before = 0;
  for (unsigned block = 0; block < kColumns * kRows; ++block) {
    // Bands of grey; the number's bits stand out in the last row.
    const unsigned column = block % kColumns;
    const bool last_row = block / kColumns == kRows - 1;
    const bool lit = (number >> (kColumns - 1 - column) & 1) != 0;
    const int grey = last_row ? (lit ? 120 : -120) : static_cast<int>(column * 25) - 90;
    PutBlock(writer, grey - before);
    before = grey;
  }
  return picture.append(writer.Finish()).append(kEnd);
}

}  // namespace vigila::gateway
