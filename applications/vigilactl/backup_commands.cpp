#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "krand/base64/base64.h"
#include "tevra/core/secret_text.h"
#include "tevra/osa/descriptor.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/unfinished_file.h"
#include "vigila/contract/result_codes.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/commands.h"
#include "vigilactl/password_input.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/text_table.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

using tevra::core::SecretText;
using tevra::osa::Descriptor;
using tevra::osa::UnfinishedFile;

constexpr size_t kMaximumBytes = size_t{8} << 20;  // the longest backup there is
constexpr size_t kPieceBytes = 256 * 1024;

struct BackupOptions {
  std::string file;
  bool passphrase_stdin = false;
  bool yes = false;
};

SecretText ReadPassphrase(const BackupOptions& options, bool confirm) {
  return ReadSecret(
      options.passphrase_stdin ? SecretSource::kStandardInput : SecretSource::kTerminal,
      "passphrase of the backup", confirm);
}

[[noreturn]] void ThrowFileError(const std::string& file, const char* what) {
  throw UsageError("\"" + Printable(file) + "\" " + what + ": " + std::strerror(errno));
}

std::string ReadFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file) ThrowFileError(path, "cannot be opened");
  std::string bytes;
  char part[65536];
  for (;;) {
    const ssize_t length = read(file.get(), part, sizeof(part));
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) ThrowFileError(path, "cannot be read");
    if (length == 0) return bytes;
    bytes.append(part, static_cast<size_t>(length));
    if (bytes.size() > kMaximumBytes) throw UsageError("\"" + Printable(path) + "\" is too long");
  }
}

// Whole or not at all, readable by its owner alone, and never over another file: the only backup of
// a device must not be lost to one that is not finished.
void WriteFile(const std::string& path, const std::string& bytes) try {
  UnfinishedFile file(path);
  for (size_t written = 0; written < bytes.size();) {
    const ssize_t length = write(file.get(), bytes.data() + written, bytes.size() - written);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) ThrowFileError(path, "cannot be written");
    written += static_cast<size_t>(length);
  }
  if (fsync(file.get()) != 0) ThrowFileError(path, "cannot be written");
  if (!file.MoveIntoPlace()) throw UsageError("\"" + Printable(path) + "\" is there already");
} catch (const std::system_error& error) {
  throw UsageError("\"" + Printable(path) + "\" " + error.what());
}

void RequireNewFile(const std::string& path) {
  if (access(path.c_str(), F_OK) == 0) {
    throw UsageError("\"" + Printable(path) + "\" is there already: name a new file");
  }
}

// Asks until the service has done its work, which takes from tenths of a second to minutes.
Json AwaitReady(const std::function<std::string()>& ask) {
  for (int wait_ms = 20;; wait_ms = std::min(2 * wait_ms, 500)) {
    Json answer = ReadAnswer(ask());
    if (CodeOf(answer) != 0 || answer.at("Ready").get<bool>()) return answer;
    poll(nullptr, 0, wait_ms);
  }
}

std::string CountOf(const Json& holds, const char* member, const char* what) {
  const auto count = holds.at(member).get<size_t>();
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string Holds(const Json& holds) {
  return CountOf(holds, "Accounts", "account") + ", " +
         CountOf(holds, "Passphrases", "passphrase") + ", " + CountOf(holds, "Rules", "rule");
}

// The sentence for a backup, where the account operations' would not fit.
std::string BackupSentence(int code) {
  if (code != vigila::contract::kLastAdministrator) return SentenceOf(code);
  return "The backup has no administrator with a password: the device would be left without one.";
}

ExitCode SaveBackup(Invocation& invocation, const BackupOptions& options) {
  RequireNewFile(options.file);
  const SecretText passphrase = ReadPassphrase(options, true);
  tevra::interfaces::IAdministration& service = invocation.Administration();
  const Json begun = ReadAnswer(service.StartBackup(invocation.OnBehalfOf(), passphrase.Text()));
  if (const int code = CodeOf(begun); code != 0) {
    return invocation.Refuse(begun,
                             code == vigila::contract::kLastAdministrator
                                 ? "There is no administrator with a password, so that there is "
                                   "nothing that a device could be restored from."
                                 : BackupSentence(code));
  }
  const std::string id = begun.at("Id").get<std::string>();
  std::string bytes;
  size_t size = 0;
  size_t unreadable = 0;
  do {
    const auto offset = static_cast<uint32_t>(bytes.size());
    const Json piece =
        AwaitReady([&] { return service.GetBackup(invocation.OnBehalfOf(), id, offset); });
    if (const int code = CodeOf(piece); code != 0) {
      return invocation.Refuse(piece, BackupSentence(code));
    }
    bytes += krand::lib::Base64::Decode(piece.at("Data").get<std::string>());
    size = piece.at("Size").get<size_t>();
    unreadable = piece.at("Unreadable").get<size_t>();
    if (bytes.size() == offset) throw tevra::osa::Exception("the service sent an empty piece");
  } while (bytes.size() < size);
  WriteFile(options.file, bytes);
  if (unreadable > 0) {
    invocation.Note(std::to_string(unreadable) +
                    " stored secrets are damaged on the device and are not in the backup");
  }
  Json object = {{"File", options.file},
                 {"Bytes", size},
                 {"Holds", begun.at("Holds")},
                 {"Unreadable", unreadable}};
  return invocation.Answer(
      object, "Saved " + Holds(begun.at("Holds")) + " to " + Printable(options.file) + ".\n");
}

// A backup that the service has looked at, and what it said.
struct OfferedBackup {
  std::string id;
  Json plan;
};

OfferedBackup OfferBackup(Invocation& invocation, const BackupOptions& options) {
  const std::string bytes = ReadFile(options.file);
  const SecretText passphrase = ReadPassphrase(options, false);
  tevra::interfaces::IAdministration& service = invocation.Administration();
  OfferedBackup offer;
  size_t offset = 0;
  do {
    const std::string piece = bytes.substr(offset, kPieceBytes);
    offer.plan = ReadAnswer(
        service.PutBackup(invocation.OnBehalfOf(), offer.id, static_cast<uint32_t>(offset), piece));
    if (CodeOf(offer.plan) != 0) return offer;
    offer.id = offer.plan.at("Id").get<std::string>();
    offset += piece.size();
  } while (offset < bytes.size());
  offer.plan =
      ReadAnswer(service.StartRestore(invocation.OnBehalfOf(), offer.id, passphrase.Text()));
  if (CodeOf(offer.plan) != 0) return offer;
  offer.plan =
      AwaitReady([&] { return service.GetRestorePlan(invocation.OnBehalfOf(), offer.id); });
  return offer;
}

std::string RenderPlan(const Json& plan) {
  TextTable table;
  const auto add = [&](const char* member, const std::string& what) {
    const auto list = [&difference = plan.at(member)](const char* what_happens) {
      const Json& names = difference.at(what_happens);
      return names.at("Count") == 0 ? std::string("none") : ListNames(names);
    };
    table.AddRow({what + " added", list("Added")});
    table.AddRow({what + " changed", list("Changed")});
    table.AddRow({what + " removed", list("Removed")});
  };
  table.AddRow({"Holds", Holds(plan.at("Holds"))});
  add("Accounts", "Accounts");
  add("Passphrases", "Passphrases");
  for (const Json& rule : plan.at("Rules")) {
    table.AddRow({"Rule changed", NameIn(rule, "Pattern") + ": " + NameIn(rule, "TextNow") +
                                      " becomes " + NameIn(rule, "Text")});
  }
  return table.Render();
}

void NoteUnknownRules(Invocation& invocation, const Json& plan) {
  const auto count = plan.at("UnknownRules").get<size_t>();
  if (count == 0) return;
  invocation.Note(std::to_string(count) +
                  " rules of the backup are for paths without a changeable rule here and are left "
                  "out");
}

ExitCode ShowBackup(Invocation& invocation, const BackupOptions& options) {
  const OfferedBackup offer = OfferBackup(invocation, options);
  if (const int code = CodeOf(offer.plan); code != 0) {
    return invocation.Refuse(offer.plan, BackupSentence(code));
  }
  NoteUnknownRules(invocation, offer.plan);
  return invocation.Answer(offer.plan, RenderPlan(offer.plan));
}

// Asks at the terminal, whatever the standard streams are. A restoration by a script says --yes.
bool Confirms(const std::string& question) {
  const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) throw UsageError("there is no terminal to ask whether to go on: use --yes");
  if (write(terminal.get(), question.data(), question.size()) < 0) return false;
  char answer[8] = {};
  const ssize_t length = read(terminal.get(), answer, sizeof(answer));
  return length > 0 && std::string(answer, static_cast<size_t>(length)) == "yes\n";
}

ExitCode RestoreBackup(Invocation& invocation, const BackupOptions& options) {
  const OfferedBackup offer = OfferBackup(invocation, options);
  if (const int code = CodeOf(offer.plan); code != 0) {
    return invocation.Refuse(offer.plan, BackupSentence(code));
  }
  NoteUnknownRules(invocation, offer.plan);
  if (!options.yes &&
      !Confirms(RenderPlan(offer.plan) +
                "All sessions end. Type \"yes\" to replace what the device has: ")) {
    return invocation.Refuse({{"Restored", false}}, "Nothing was changed.");
  }
  Json answer =
      ReadAnswer(invocation.Administration().CommitRestore(invocation.OnBehalfOf(), offer.id));
  if (const int code = CodeOf(answer); code != 0) {
    return invocation.Refuse(answer, BackupSentence(code));
  }
  return invocation.Answer(answer, "Restored " + Holds(answer.at("Holds")) + ".\n");
}

void AddBackupVerb(CLI::App& parent, Invocation& invocation, const char* name, const char* help,
                   ExitCode (*run)(Invocation&, const BackupOptions&)) {
  const auto options = std::make_shared<BackupOptions>();
  CLI::App* verb = parent.add_subcommand(name, help);
  verb->add_option("FILE", options->file, "The backup's file")->required()->type_name(kFileWord);
  verb->add_flag("--passphrase-stdin,--password-stdin", options->passphrase_stdin,
                 "Read the passphrase from stdin");
  if (run == RestoreBackup) {
    verb->add_flag("-y,--yes", options->yes, "Do not ask before the device's own are replaced");
  }
  verb->callback([&invocation, options, run] {
    invocation.Choose([&invocation, options, run] { return run(invocation, *options); });
  });
}

}  // namespace

void AddBackupCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* parent = app.add_subcommand("backup", "Accounts, passphrases and rules in one file");
  parent->require_subcommand(1);
  AddBackupVerb(*parent, invocation, "save", "Write a backup, encrypted under a passphrase",
                SaveBackup);
  AddBackupVerb(*parent, invocation, "show", "Say what restoring a backup would change",
                ShowBackup);
  AddBackupVerb(*parent, invocation, "restore", "Put a backup in the place of what the device has",
                RestoreBackup);
}

}  // namespace vigilactl
