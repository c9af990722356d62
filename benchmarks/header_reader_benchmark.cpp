// The reader of the security header on a recorded envelope of about 2 KB, whole and in 64-byte
// pieces, beside a general XML reader that is stopped at the same tag.
#include <libxml/parser.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include "benchmarks/support/pairs.h"
#include "vigila/client/vigila_xml.h"

namespace {

// A recorded envelope whose body is filled up to 2 KB: readers that stop at the header's end do not
// look at it.
std::string Envelope() {
  std::ifstream stream(TEST_DATA_DIR "/soap/0636-gsoap-indent.xml", std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  const size_t body = text.find("<t:text>");
  if (body != std::string::npos) text.insert(body + 8, std::string(2048 - text.size(), 'x'));
  return text;
}

const std::string kEnvelope = Envelope();

void Read(size_t piece) {
  vigila::client::VigilaXml reader;
  for (size_t at = 0; at < kEnvelope.size(); at += piece) {
    if (reader.Parse(kEnvelope.data() + at, std::min(piece, kEnvelope.size() - at))) break;
  }
  if (reader.Created() == nullptr) throw std::runtime_error("no fields");
}

// Collects the five fields as the reader does, so that the peer does the same work.
struct Fields {
  std::string text[6];
  int current = -1;
  bool done = false;

  void Open(const char* name) {
    const char* local = strchr(name, ':');
    local = local == nullptr ? name : local + 1;
    static const char* const kNames[] = {"Username", "Password", "Nonce", "Created"};
    current = -1;
    for (int i = 0; i < 4; ++i) {
      if (strcmp(local, kNames[i]) == 0) current = i;
    }
  }
  void Attribute(const char* name, const char* value) {
    if (current == 1 && strcmp(name, "Type") == 0) text[4] = value;
  }
  void Text(const char* data, size_t length) {
    if (current >= 0) text[current].append(data, length);
  }
  bool Close(const char* name) {
    current = -1;
    const char* local = strchr(name, ':');
    done = strcmp(local == nullptr ? name : local + 1, "Security") == 0;
    return done;
  }
};

struct LibxmlRun {
  Fields fields;
  xmlParserCtxtPtr parser;

  static void Start(void* data, const xmlChar* name, const xmlChar** attributes) {
    Fields& fields = static_cast<LibxmlRun*>(data)->fields;
    fields.Open(reinterpret_cast<const char*>(name));
    for (; attributes != nullptr && *attributes != nullptr; attributes += 2) {
      fields.Attribute(reinterpret_cast<const char*>(attributes[0]),
                       reinterpret_cast<const char*>(attributes[1]));
    }
  }
  static void End(void* data, const xmlChar* name) {
    LibxmlRun& run = *static_cast<LibxmlRun*>(data);
    if (run.fields.Close(reinterpret_cast<const char*>(name))) xmlStopParser(run.parser);
  }
  static void Text(void* data, const xmlChar* text, int length) {
    static_cast<LibxmlRun*>(data)->fields.Text(reinterpret_cast<const char*>(text),
                                               static_cast<size_t>(length));
  }
};

void ReadWithLibxml2(size_t piece) {
  xmlSAXHandler handler = {};
  handler.startElement = LibxmlRun::Start;
  handler.endElement = LibxmlRun::End;
  handler.characters = LibxmlRun::Text;
  LibxmlRun run;
  run.parser = xmlCreatePushParserCtxt(&handler, &run, nullptr, 0, nullptr);
  for (size_t at = 0; at < kEnvelope.size() && !run.fields.done; at += piece) {
    xmlParseChunk(run.parser, kEnvelope.data() + at,
                  static_cast<int>(std::min(piece, kEnvelope.size() - at)), 0);
  }
  xmlFreeParserCtxt(run.parser);
  if (run.fields.text[3].empty()) throw std::runtime_error("no fields");
}

void Register(const std::string& name, std::optional<double> budget, size_t piece) {
  benchmarks::RegisterPair(
      {.name = name, .floor = "libxml2 stopped at the same tag", .budget = budget}, [piece] {
        return std::pair(benchmarks::Timed([piece] { Read(piece); }),
                         benchmarks::Timed([piece] { ReadWithLibxml2(piece); }));
      });
}

}  // namespace

int main(int argc, char** argv) {
  Register("header reader, 2 KB envelope", 0.5, kEnvelope.size());
  Register("header reader, 64-byte pieces", {}, 64);
  return benchmarks::RunAll(argc, argv);
}
