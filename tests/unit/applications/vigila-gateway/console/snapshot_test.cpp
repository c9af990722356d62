#include "vigila-gateway/console/snapshot.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using vigila::gateway::MakeSnapshot;

constexpr size_t kBlocks = 8 * 6;

// A reader of grey baseline pictures of which each block is one grey. Throws on anything else.
class Picture final {
 public:
  explicit Picture(const std::string& file) : file_(file) {
    Expect(Byte() == 0xff && Byte() == 0xd8, "no start");
    ReadSegments();
    ReadScan();
    Expect(at_ + 2 == file_.size() && Byte() == 0xff && Byte() == 0xd9, "no end");
  }

  unsigned Width() const { return width_; }
  unsigned Height() const { return height_; }
  // 0 to 255, a block a value, row by row.
  const std::vector<int>& Greys() const { return greys_; }

 private:
  using Code = std::pair<unsigned, unsigned>;  // length and bits
  struct CodeTable {
    std::map<Code, unsigned> values;
  };

  static void Expect(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(what);
  }
  unsigned Byte() {
    Expect(at_ < file_.size(), "it is cut");
    return static_cast<unsigned char>(file_[at_++]);
  }
  unsigned Word() {
    const unsigned high = Byte();
    return high << 8 | Byte();
  }

  void ReadSegments() {
    for (;;) {
      Expect(Byte() == 0xff, "no marker");
      const unsigned marker = Byte();
      const size_t end = at_ + Word();
      switch (marker) {
        case 0xdb:
          ReadSteps();
          break;
        case 0xc0:
          ReadFrame();
          break;
        case 0xc4:
          ReadCodes();
          break;
        case 0xda:
          ReadScanHeader();
          break;
        default:
          throw std::runtime_error("a segment that is not understood");
      }
      Expect(at_ == end, "a segment of another length than it says");
      if (marker == 0xda) return;
    }
  }
  void ReadSteps() {
    Expect(Byte() == 0, "not table 0 of bytes");
    step_ = Byte();
    for (int i = 1; i < 64; ++i) Byte();
  }
  void ReadFrame() {
    Expect(Byte() == 8, "not 8 bits");
    height_ = Word();
    width_ = Word();
    Expect(Byte() == 1, "not grey");
    Expect(Byte() == 1 && Byte() == 0x11 && Byte() == 0, "another component");
  }
  void ReadCodes() {
    CodeTable& table = codes_[Byte()];
    std::vector<unsigned> counts;
    for (int length = 1; length <= 16; ++length) counts.push_back(Byte());
    unsigned bits = 0;
    for (unsigned length = 1; length <= 16; ++length, bits <<= 1) {
      for (unsigned i = 0; i < counts[length - 1]; ++i) {
        table.values[{length, bits++}] = Byte();
        // A code of nothing but ones belongs to the padding.
        Expect(bits < 1u << length, "too many codes");
      }
    }
  }
  void ReadScanHeader() {
    Expect(Byte() == 1 && Byte() == 1 && Byte() == 0, "another component");
    Expect(Byte() == 0 && Byte() == 63 && Byte() == 0, "not all coefficients");
  }

  unsigned Bit() {
    if (bits_left_ == 0) {
      bits_ = Byte();
      bits_left_ = 8;
      if (bits_ == 0xff) Expect(Byte() == 0, "a marker within the picture");
    }
    return bits_ >> --bits_left_ & 1;
  }
  unsigned Coded(const CodeTable& table) {
    unsigned bits = 0;
    for (unsigned length = 1; length <= 16; ++length) {
      bits = bits << 1 | Bit();
      const auto found = table.values.find({length, bits});
      if (found != table.values.end()) return found->second;
    }
    throw std::runtime_error("no such code");
  }
  int Difference(unsigned size) {
    int value = 0;
    for (unsigned i = 0; i < size; ++i) value = value << 1 | static_cast<int>(Bit());
    const bool negative = size > 0 && value < 1 << (size - 1);
    return negative ? value - (1 << size) + 1 : value;
  }
  void ReadScan() {
    int first = 0;
    for (size_t block = 0; block < kBlocks; ++block) {
      first += Difference(Coded(codes_.at(0x00)));
      Expect(Coded(codes_.at(0x10)) == 0, "a block of more than one grey");
      greys_.push_back(first * static_cast<int>(step_) / 8 + 128);
    }
    while (bits_left_ > 0) Expect(Bit() == 1, "padding of zeros");
  }

  const std::string& file_;
  size_t at_ = 0;
  unsigned step_ = 0;
  unsigned width_ = 0;
  unsigned height_ = 0;
  std::map<unsigned, CodeTable> codes_;
  unsigned bits_ = 0;
  unsigned bits_left_ = 0;
  std::vector<int> greys_;
};

TEST(Snapshot, IsAPictureOf64By48) {
  const std::string file = MakeSnapshot(1);
  const Picture picture(file);
  EXPECT_EQ(picture.Width(), 64u);
  EXPECT_EQ(picture.Height(), 48u);
  EXPECT_EQ(picture.Greys().size(), kBlocks);
}

TEST(Snapshot, ShowsBandsAndItsNumberBelowThem) {
  for (unsigned number = 0; number < 256; ++number) {
    SCOPED_TRACE(number);
    const std::string file = MakeSnapshot(number);
    std::vector<int> expected;
    for (int row = 0; row < 5; ++row) {
      for (const int grey : {38, 63, 88, 113, 138, 163, 188, 213}) expected.push_back(grey);
    }
    for (unsigned bit = 128; bit != 0; bit >>= 1) {
      expected.push_back((number & bit) != 0 ? 248 : 8);
    }
    ASSERT_EQ(Picture(file).Greys(), expected);
  }
}

TEST(Snapshot, IsTheSameForTheSameNumberOnly) {
  std::set<std::string> files;
  for (unsigned number = 1; number <= 40; ++number) {
    EXPECT_EQ(MakeSnapshot(number), MakeSnapshot(number));
    files.insert(MakeSnapshot(number));
  }
  EXPECT_EQ(files.size(), 40u);
}

}  // namespace
