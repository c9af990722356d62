#ifndef TEVRA_MSGBUS_WIRE_FRAME_READER_H_
#define TEVRA_MSGBUS_WIRE_FRAME_READER_H_

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace tevra::msgbus::wire {

// Cuts a stream of bytes into frames, however the stream was cut before. A frame's length is judged
// as soon as it is there, and memory grows with the bytes that have come, never with what was
// announced. What came behind a frame is kept for the next one. Messages carry passwords, so memory
// is overwritten before it is given back. Not synchronised.
class FrameReader final {
 public:
  enum class State { kFrame, kNeedsMore, kTooLong };

  explicit FrameReader(size_t max_body_bytes) : max_body_bytes_(max_body_bytes) {}
  ~FrameReader() { Overwrite(0, end_); }
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Where the next bytes are to be written, never empty; then how many were.
  std::span<char> Space();
  void Took(size_t count) { end_ += count; }
  // The next frame's body; it stays valid until Space or Wipe is called. After kTooLong the stream
  // is lost.
  State Next(std::string_view* body);
  // Ends the use of the frame that Next gave out last: overwrites it, and gives the memory of a
  // large one back, which a connection may otherwise hold for as long as it is idle.
  void Wipe();
  size_t HeldBytes() const { return buffer_.size(); }
  // Whether there is anything that Next has not given out.
  bool HasMore() const { return begin_ < end_; }

 private:
  void Overwrite(size_t begin, size_t end);
  void MoveTo(size_t size);

  const size_t max_body_bytes_;
  std::vector<char> buffer_;
  size_t given_ = 0;  // where the frame that was given out last begins
  size_t begin_ = 0;  // of what is not given out
  size_t end_ = 0;
};

}  // namespace tevra::msgbus::wire

#endif  // TEVRA_MSGBUS_WIRE_FRAME_READER_H_
