#ifndef VIGILACTL_SECRET_H_
#define VIGILACTL_SECRET_H_

#include <string.h>

#include <string>
#include <utility>

namespace vigilactl {

// A text that is wiped when it goes. The copies that the bus makes on the way are not its business:
// the process ends with the verb.
class Secret final {
 public:
  explicit Secret(std::string text) : text_(std::move(text)) {}
  ~Secret() { explicit_bzero(text_.data(), text_.size()); }
  // Copies: a text that is short enough to lie in the string itself would stay behind a move.
  // NOLINTNEXTLINE(performance-move-constructor-init)
  Secret(Secret&& other) noexcept : text_(other.text_) {
    explicit_bzero(other.text_.data(), other.text_.size());
    other.text_.clear();
  }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  const std::string& Text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace vigilactl

#endif  // VIGILACTL_SECRET_H_
