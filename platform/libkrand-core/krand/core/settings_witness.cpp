#include "krand/core/settings_witness.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "krand/core/settings_checksum.h"
#include "krand/core/settings_failure.h"
#include "tevra/osa/descriptor.h"
#include "tevra/osa/unfinished_file.h"

namespace krand::core {

namespace {

using tevra::osa::Descriptor;
using tevra::osa::UnfinishedFile;

constexpr size_t kLongest = 512;

std::string Encode(const SettingsWitness::Testimony& testimony) {
  const std::string said = "vigila settings witness 1\nchange " + std::to_string(testimony.change) +
                           "\nmarked " + (testimony.marked ? "1" : "0") + "\n";
  return said + "checksum " + SettingsChecksum::OfBytes(said).Text() + "\n";
}

// Whatever is not exactly what Encode writes is damaged.
std::optional<SettingsWitness::Testimony> Decode(const std::string& text) {
  long long change = 0;
  int marked = 0;
  if (sscanf(text.c_str(), "vigila settings witness 1\nchange %lld\nmarked %d", &change, &marked) !=
      2) {
    return std::nullopt;
  }
  const SettingsWitness::Testimony testimony{change, marked != 0};
  if (Encode(testimony) != text) return std::nullopt;
  return testimony;
}

}  // namespace

std::string SettingsWitness::Testimony::Contradiction(const SettingsManifest& manifest) const {
  if (manifest.change < change) {
    return "it is older than its witness says (change " + std::to_string(manifest.change) + " of " +
           std::to_string(change) + ")";
  }
  if (marked && !manifest.marked) return "it lacks what its witness says that it had";
  return std::string();
}

std::optional<SettingsWitness::Testimony> SettingsWitness::Read() const {
  const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file && errno == ENOENT) return std::nullopt;
  std::string text(kLongest, '\0');
  const ssize_t size = file ? read(file.get(), text.data(), text.size()) : -1;
  if (size < 0) throw SettingsFailure(path_ + ": cannot be read: " + strerror(errno));
  text.resize(static_cast<size_t>(size));
  const std::optional<Testimony> testimony = Decode(text);
  if (!testimony) throw SettingsFailure(path_ + ": does not match its checksum");
  return testimony;
}

void SettingsWitness::Write(const Testimony& testimony) const {
  const std::string text = Encode(testimony);
  try {
    UnfinishedFile file(path_);
    if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fsync(file.get()) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot be written");
    }
    file.Replace();
  } catch (const std::system_error& failure) {
    throw SettingsFailure(path_ + ": " + failure.what());
  }
}

}  // namespace krand::core
