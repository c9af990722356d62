#include "tevra/msgbus/wire/frame_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tevra/msgbus/wire/frame.h"

namespace tevra::msgbus::wire {
namespace {

// Nearly every message fits, so that it takes one read.
constexpr size_t kUsualBytes = 4096;

}  // namespace

std::span<char> FrameReader::Space() {
  if (begin_ > 0) {
    const size_t left = end_ - begin_;
    memmove(buffer_.data(), buffer_.data() + begin_, left);
    Overwrite(left, end_);
    given_ = begin_ = 0;
    end_ = left;
  }
  if (end_ == 0 && buffer_.size() != kUsualBytes) MoveTo(kUsualBytes);
  if (end_ == buffer_.size()) {
    const size_t limit = std::max(max_body_bytes_ + kLengthBytes, kUsualBytes);
    MoveTo(std::max(std::min(buffer_.size() * 2, limit), end_ + 1));
  }
  return {buffer_.data() + end_, buffer_.size() - end_};
}

FrameReader::State FrameReader::Next(std::string_view* body) {
  if (end_ - begin_ < kLengthBytes) return State::kNeedsMore;
  const size_t length = LoadNumber(buffer_.data() + begin_);
  if (length > max_body_bytes_) return State::kTooLong;
  if (end_ - begin_ - kLengthBytes < length) return State::kNeedsMore;
  *body = {buffer_.data() + begin_ + kLengthBytes, length};
  given_ = begin_;
  begin_ += kLengthBytes + length;
  return State::kFrame;
}

void FrameReader::Wipe() {
  Overwrite(given_, begin_);
  given_ = begin_;
  if (begin_ < end_ || buffer_.size() <= kUsualBytes) return;
  given_ = begin_ = end_ = 0;
  MoveTo(0);
}

void FrameReader::Overwrite(size_t begin, size_t end) {
  if (begin < end) explicit_bzero(buffer_.data() + begin, end - begin);
}

void FrameReader::MoveTo(size_t size) {
  std::vector<char> buffer(size);
  if (end_ > 0) memcpy(buffer.data(), buffer_.data(), end_);
  Overwrite(0, end_);
  buffer_ = std::move(buffer);
}

}  // namespace tevra::msgbus::wire
