#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <istream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "krand/base64/base64.h"
#include "tevra/crypto/gcrypt_digest.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/time.h"
#include "vigila/client/vigila_xml.h"
#include "vigila/contract/limits.h"
#include "vigilactl/commands.h"
#include "vigilactl/password_input.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/text_table.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

using tevra::core::SecretText;

using krand::lib::Base64;
using tevra::crypto::GCryptDigest;
using vigila::client::VigilaXml;

constexpr size_t kMaxEnvelopeBytes = 16u << 20;
// How much is shown of what stands before the place where the reader stopped.
constexpr size_t kContextBytes = 40;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

struct CheckOptions {
  std::string file;
  bool password_stdin = false;
};

// An envelope as far as the reader went into it.
struct Reading {
  std::string envelope;
  size_t taken = 0;
  VigilaXml reader;

  std::string_view Taken() const { return std::string_view(envelope).substr(0, taken); }
  bool Holds(std::string_view text) const { return Taken().find(text) != std::string_view::npos; }
  // The reader stops at malformed input as well; at the header's end its element is still named.
  bool HeaderEnded() const {
    return reader.Stopped() && reader.Result() == 0 && reader.ElementWithoutNs() == "Security";
  }
};

using Fields = std::vector<std::pair<const char*, const char*>>;
using Reasons = std::vector<std::string>;

Fields FieldsOf(const VigilaXml& reader) {
  return {{"Username", reader.Username()},
          {"Password", reader.Password()},
          {"Type", reader.Type()},
          {"Nonce", reader.Nonce()},
          {"Created", reader.Created()}};
}

std::string ReadAll(std::istream& stream, const std::string& name) {
  std::string text;
  char buffer[65536];
  while (stream.read(buffer, sizeof(buffer)), stream.gcount() > 0) {
    text.append(buffer, static_cast<size_t>(stream.gcount()));
    if (text.size() > kMaxEnvelopeBytes) throw UsageError(name + " is too long for an envelope");
  }
  if (!stream.eof()) throw UsageError("cannot read " + name);
  return text;
}

std::string ReadEnvelope(const std::string& name) {
  if (name == "-") return ReadAll(std::cin, "standard input");
  std::ifstream file(name, std::ios::binary);
  return ReadAll(file, name);
}

// Byte by byte, which gives the same fields, to know where the reader stops.
void Read(Reading& reading) {
  while (reading.taken < reading.envelope.size() && !reading.reader.Stopped()) {
    reading.reader.Parse(&reading.envelope[reading.taken++], 1);
  }
}

std::string PlaceOfStop(const Reading& reading) {
  const std::string_view before = reading.Taken();
  const auto line = 1 + std::count(before.begin(), before.end() - 1, '\n');
  const size_t context = std::min(before.size(), kContextBytes);
  return "The reader stopped at byte " + std::to_string(before.size()) + ", line " +
         std::to_string(line) + ", at the end of \"" +
         Printable(before.substr(before.size() - context)) +
         "\": that is malformed, too long or there twice.";
}

// Why the reader did not come to the end of the security header.
void CheckReading(const Reading& reading, Reasons& reasons) {
  if (reading.HeaderEnded()) return;
  if (reading.reader.Result() == 2) reasons.push_back("No Envelope element was found.");
  if (reading.reader.Stopped()) {
    reasons.push_back(PlaceOfStop(reading));
  } else {
    reasons.push_back("No end of a security header was found.");
  }
  if (reading.envelope.starts_with(kByteOrderMark)) {
    reasons.push_back("A byte order mark at the front stops the reader.");
  }
  if (reading.reader.Stopped() && reading.Taken().ends_with('\'')) {
    reasons.push_back("Attribute values need double quotes there.");
  }
  if (reading.Holds("<!--")) {
    reasons.push_back("A comment is taken for an element that has no end.");
  }
  if (reading.Holds("<![CDATA[")) {
    reasons.push_back("A CDATA section is not decoded and hides what follows it.");
  }
}

void CheckFields(const VigilaXml& reader, Reasons& reasons) {
  for (const auto& [name, value] : FieldsOf(reader)) {
    if (value != nullptr || name == std::string_view("Type")) continue;
    reasons.push_back(std::string("No ") + name + " was found in a UsernameToken.");
  }
  const std::string username = reader.Username() == nullptr ? "" : reader.Username();
  if (username == "nobody") reasons.push_back("The account \"nobody\" cannot log on.");
  if (username.find('&') != std::string::npos) {
    reasons.push_back("The user name holds an \"&\": entities are not decoded.");
  }
}

void CheckCreated(const std::string& created, Reasons& reasons) {
  try {
    const tevra::osa::TimeStruct then = tevra::osa::DateTime(created).ToTimeStruct();
    const tevra::osa::TimeStruct now(true);
    const int64_t off =
        tevra::osa::TimeSpan::FromMicroseconds((then.seconds - now.seconds) * 1000000 +
                                               then.microseconds - now.microseconds)
            .WholeSeconds();
    if (std::abs(off) <= vigila::contract::kClockToleranceSecs) return;
    reasons.push_back("The creation time is " + std::to_string(std::abs(off)) + " seconds " +
                      (off < 0 ? "behind" : "ahead of") + " this machine's clock; " +
                      std::to_string(vigila::contract::kClockToleranceSecs) + " are allowed.");
  } catch (const tevra::osa::Exception&) {
    reasons.push_back("The creation time is not an ISO 8601 date and time.");
  }
}

bool IsDigest(const char* password) {
  return Base64::Decode(password).size() == vigila::contract::kWsseDigestBytes;
}

void CheckValues(const VigilaXml& reader, Reasons& reasons) {
  const std::string_view type = reader.Type() != nullptr ? reader.Type() : "";
  if ((reader.Type() != nullptr || reader.Password() != nullptr) &&
      !type.ends_with("#PasswordDigest")) {
    reasons.push_back("The password is not of the type PasswordDigest.");
  }
  if (reader.Password() != nullptr && !IsDigest(reader.Password())) {
    reasons.push_back("The password is not the base64 form of a SHA-1 digest.");
  }
  if (reader.Nonce() != nullptr && Base64::Decode(reader.Nonce()).empty()) {
    reasons.push_back("The nonce is not base64 in its one spelling.");
  }
  if (reader.Created() != nullptr) CheckCreated(reader.Created(), reasons);
}

bool DigestMatches(const VigilaXml& reader, const std::string& password) {
  GCryptDigest sha(GCryptDigest::kSha1);
  const std::string nonce = Base64::Decode(reader.Nonce());
  const std::string_view created = reader.Created();
  sha.Update(nonce.data(), nonce.size());
  sha.Update(created.data(), created.size());
  sha.Update(password.data(), password.size());
  const std::string expected(reinterpret_cast<const char*>(sha.Digest()), sha.DigestSize());
  return Base64::Decode(reader.Password()) == expected;
}

void CheckPassword(const VigilaXml& reader, Reasons& reasons) {
  const SecretText password = ReadSecret(SecretSource::kStandardInput, "password", false);
  if (reader.Password() == nullptr || reader.Nonce() == nullptr || reader.Created() == nullptr) {
    return;
  }
  if (!DigestMatches(reader, password.Text())) {
    reasons.push_back("The digest is not that of this password, nonce and creation time.");
  }
}

// A password that came in clear is not repeated.
std::string Shown(const std::string& name, const char* value) {
  if (name != "Password" || IsDigest(value)) return value;
  return "(not shown: no digest)";
}

Json JsonReport(const Reading& reading, const Reasons& reasons) {
  Json object;
  for (const auto& [name, value] : FieldsOf(reading.reader)) {
    if (value == nullptr) {
      object[name] = nullptr;
    } else {
      object[name] = Shown(name, value);
    }
  }
  object["Bytes"] = reading.envelope.size();
  object["BytesRead"] = reading.taken;
  Json sentences = Json::array();
  for (const std::string& reason : reasons) sentences.push_back(reason);
  object["Reasons"] = sentences;
  return object;
}

std::string TextReport(const Reading& reading, const Reasons& reasons) {
  TextTable table;
  for (const auto& [name, value] : FieldsOf(reading.reader)) {
    table.AddRow({name, value == nullptr ? "(none)" : Shown(name, value)});
  }
  table.AddRow({"Read", std::to_string(reading.taken) + " of " +
                            std::to_string(reading.envelope.size()) + " bytes"});
  std::string text = table.Render();
  text += reasons.empty() ? "Nothing in this envelope makes a logon fail.\n"
                          : "A logon with this envelope fails:\n";
  for (const std::string& reason : reasons) text += "  " + reason + '\n';
  return text;
}

ExitCode Check(Invocation& invocation, const CheckOptions& options) {
  if (options.password_stdin && options.file == "-") {
    throw UsageError("the envelope and the password cannot both come from standard input");
  }
  Reading reading;
  reading.envelope = ReadEnvelope(options.file);
  Read(reading);
  Reasons reasons;
  CheckReading(reading, reasons);
  CheckFields(reading.reader, reasons);
  CheckValues(reading.reader, reasons);
  if (options.password_stdin) CheckPassword(reading.reader, reasons);
  invocation.Answer(JsonReport(reading, reasons), TextReport(reading, reasons));
  if (!reasons.empty()) return kRefused;
  invocation.Note(std::string("not checked: the account, ") +
                  (options.password_stdin ? "" : "its password (--password-stdin), ") +
                  "and whether the nonce was used before");
  return kDone;
}

}  // namespace

void AddWsseCheckCommand(CLI::App& app, Invocation& invocation) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* verb =
      app.add_subcommand("wsse-check", "Say why a logon with a SOAP envelope would fail");
  verb->add_option("FILE", options->file, "The envelope; - for standard input")
      ->required()
      ->type_name(kFileWord);
  verb->add_flag("--password-stdin", options->password_stdin,
                 "Check the digest against the password on standard input");
  verb->callback([&invocation, options] {
    invocation.Choose([&invocation, options] { return Check(invocation, *options); });
  });
}

}  // namespace vigilactl
