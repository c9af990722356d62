#ifndef TEVRA_INTERFACES_ANSWER_STAMP_H_
#define TEVRA_INTERFACES_ANSWER_STAMP_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "tevra/interfaces/revocation_page.h"

namespace tevra::interfaces {

// By which it is known whether an answer still holds: its server's page, and what stood in it
// before the question was sent. Not synchronised.
class AnswerStamp final {
 public:
  // To be made before the question is sent. Without a page no answer holds.
  explicit AnswerStamp(std::shared_ptr<const RevocationPage> page) : page_(std::move(page)) {
    if (!page_) return;
    ends_ = page_->Ends();
    epoch_ = page_->Epoch();
  }

  // Ties the answer to the session of `token`, which the question names; before it is sent, too.
  void Concerns(std::string_view token) {
    if (!page_) return;
    index_ = RevocationPage::SlotOf(token);
    slot_ = page_->Slot(index_);
  }

  // Ties the answer to the session of `token`, which the answer names; after it has come. False
  // when a session has ended since the question was sent: it may have been this one.
  [[nodiscard]] bool ConcernsAnswered(std::string_view token) {
    Concerns(token);
    return page_ && page_->Ends() == ends_;
  }

  bool Holds(uint64_t now_ns) const {
    return page_ && page_->Epoch() == epoch_ && page_->Slot(index_) == slot_ &&
           page_->IsAlive(now_ns);
  }

  const std::shared_ptr<const RevocationPage>& Page() const { return page_; }
  uint64_t Epoch() const { return epoch_; }

 private:
  std::shared_ptr<const RevocationPage> page_;
  uint64_t ends_ = 0;
  uint64_t epoch_ = 0;
  uint64_t slot_ = 0;
  std::size_t index_ = RevocationPage::kNoSession;
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_ANSWER_STAMP_H_
