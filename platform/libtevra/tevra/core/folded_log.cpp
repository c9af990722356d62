#include "tevra/core/folded_log.h"

namespace tevra::core {
namespace {

constexpr std::chrono::minutes kPause{1};
constexpr size_t kMaxEntries = 256;

}  // namespace

void FoldedLog::Write(Logger::Level level, uid_t user, const std::string& cause,
                      const std::string& text) {
  WriteFolded();
  Key key(user, cause);
  if (entries_.size() >= kMaxEntries && !entries_.contains(key)) key = Key(0, "");
  const auto [entry, is_new] = entries_.try_emplace(std::move(key));
  if (is_new) {
    entry->second = {clock_(), 0, level, text};
    return WriteLine(level, text);
  }
  ++entry->second.folded;
  entry->second.text = text;
}

// A minute after a line: what followed it, and nothing when nothing did.
void FoldedLog::WriteFolded() {
  const auto now = clock_();
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    auto& [written, folded, level, text] = entry->second;
    if (now - written < kPause) {
      ++entry;
    } else if (folded == 0) {
      entry = entries_.erase(entry);
    } else {
      const std::string others =
          folded == 1 ? "" : " (and " + std::to_string(folded - 1) + " like it)";
      WriteLine(level, text + others);
      written = now;
      folded = 0;
      ++entry;
    }
  }
}

void FoldedLog::WriteLine(Logger::Level level, const std::string& text) {
  switch (level) {
    case Logger::kError:
      return logger_->Error("%s", text.c_str());
    case Logger::kWarning:
      return logger_->Warning("%s", text.c_str());
    case Logger::kNotice:
      return logger_->Notice("%s", text.c_str());
    case Logger::kInformation:
      return logger_->Information("%s", text.c_str());
    case Logger::kDebug:
      return logger_->Debug("%s", text.c_str());
  }
}

}  // namespace tevra::core
