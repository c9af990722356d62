#include "vigila/client/vigila_xml.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "krand/base64/base64.h"
#include "tevra/crypto/gcrypt_digest.h"
#include "vigila/client/vigila_xml_c.h"

namespace vigila::client {
namespace {

using Field = std::optional<std::string>;

struct Reading {
  bool stopped = false;
  int result = 0;
  Field username, password, type, nonce, created;

  bool operator==(const Reading&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Reading& reading) {
  const auto show = [&out](const char* name, const Field& field) {
    out << ' ' << name << '=' << (field ? '"' + *field + '"' : "null");
  };
  out << (reading.stopped ? "stopped" : "open") << " result=" << reading.result;
  show("username", reading.username);
  show("password", reading.password);
  show("type", reading.type);
  show("nonce", reading.nonce);
  show("created", reading.created);
  return out;
}

Field AsField(const char* text) {
  return text == nullptr ? Field() : Field(text);
}

Reading ReadInPieces(const std::string& document, size_t piece) {
  VigilaXml reader;
  for (size_t at = 0; at < document.size(); at += piece) {
    const std::string chunk = document.substr(at, piece);
    reader.Parse(chunk.data(), chunk.size());
  }
  return {reader.Stopped(),           reader.Result(),        AsField(reader.Username()),
          AsField(reader.Password()), AsField(reader.Type()), AsField(reader.Nonce()),
          AsField(reader.Created())};
}

// Reads a document whole, in several piece sizes and byte by byte; all must agree.
Reading Read(const std::string& document) {
  const Reading whole = ReadInPieces(document, document.size() + 1);
  for (const size_t piece : {1u, 2u, 3u, 7u, 64u, 255u, 256u, 257u}) {
    EXPECT_EQ(ReadInPieces(document, piece), whole) << "in pieces of " << piece;
  }
  return whole;
}

std::string Token(const std::string& inner) {
  return "<Envelope><Header><Security><UsernameToken>" + inner +
         "</UsernameToken></Security></Header><Body/></Envelope>";
}

constexpr char kFields[] =
    "<Username>alice</Username><Password Type=\"T\">digest</Password><Nonce>n</Nonce>"
    "<Created>c</Created>";
const Reading kComplete{true, 0, "alice", "digest", "T", "n", "c"};

TEST(VigilaXml, ReadsTheFiveFieldsAndStopsAfterTheSecurityElement) {
  EXPECT_EQ(Read(Token(kFields)), kComplete);
}

TEST(VigilaXml, DoesNotLookAtTheBody) {
  EXPECT_EQ(Read(Token(kFields) + "<<<not xml at all"), kComplete);
}

TEST(VigilaXml, IgnoresPrefixesWhateverTheyAre) {
  EXPECT_EQ(Read("<?xml version=\"1.0\"?>\n<s:Envelope xmlns:s=\"urn:s\"><a:Header>"
                 "<w:Security a='1'><UsernameToken w:Id='2'><x:Username>alice</x:Username>"
                 "<w:Password Type=\"T\">digest</w:Password><w:Nonce>n</w:Nonce>"
                 "<u:Created>c</u:Created></UsernameToken></w:Security></a:Header>"),
            kComplete);
}

TEST(VigilaXml, NeverStopsWithoutASecurityHeader) {
  const Reading none{false, 0, {}, {}, {}, {}, {}};
  EXPECT_EQ(Read("<Envelope><Body><a/></Body></Envelope>"), none);
  EXPECT_EQ(Read("<Envelope><Header></Header><Body></Body></Envelope>"), none);
}

TEST(VigilaXml, ReportsWhereItIsByItsResult) {
  EXPECT_EQ(Read("").result, 2);
  EXPECT_EQ(Read("<?xml version='1.0'?>").result, 2);
  EXPECT_EQ(Read("<a><Envelope").result, 2);
  EXPECT_EQ(Read("<a><Envelope>").result, 0);
  EXPECT_EQ(Read("<Envelope><Header>").result, 0);
  EXPECT_EQ(Read("<Envelope><Header><Security>").result, 1);
  EXPECT_EQ(Read("<Envelope><Header><Security><UsernameToken>").result, 0);
  EXPECT_EQ(Read("<Envelope><Header><Security><UsernameToken></UsernameToken>").result, 1);
  EXPECT_EQ(Read("<Envelope><Header><Security></Security>").result, 0);
}

TEST(VigilaXml, TakesTheTypeAsWrittenWithoutDecodingEntities) {
  EXPECT_EQ(*Read(Token("<Password Type=\" a&amp;b' > \">p</Password>")).type, " a&amp;b' > ");
}

TEST(VigilaXml, TakesTextAsWrittenWithoutDecodingEntities) {
  EXPECT_EQ(*Read(Token("<Username>a&lt;b&#65;</Username>")).username, "a&lt;b&#65;");
}

TEST(VigilaXml, TrimsWhiteSpaceAroundText) {
  EXPECT_EQ(*Read(Token("<Username> \r\n\ta b \t</Username>")).username, "a b");
}

TEST(VigilaXml, HoldsTextsOf255BytesAndNoLongerOnes) {
  EXPECT_EQ(Read(Token("<Username>" + std::string(255, 'u') + "</Username>")).username,
            std::string(255, 'u'));
  for (const size_t size : {256u, 257u, 300u, 10000u}) {
    const Reading reading = Read(Token("<Username>" + std::string(size, 'u') + "</Username>"));
    EXPECT_TRUE(reading.stopped);
    EXPECT_FALSE(reading.username) << size;
  }
}

TEST(VigilaXml, HoldsAttributeValuesOf255Bytes) {
  const auto type_of = [](size_t size) {
    return Read(Token("<Password Type=\"" + std::string(size, 't') + "\">p</Password>"));
  };
  EXPECT_EQ(type_of(255).type, std::string(255, 't'));
  EXPECT_FALSE(type_of(256).type);
  EXPECT_TRUE(type_of(256).stopped);
}

TEST(VigilaXml, HoldsTagNamesOf254Bytes) {
  EXPECT_FALSE(Read("<Envelope><" + std::string(254, 'x') + ">").stopped);
  EXPECT_TRUE(Read("<Envelope><" + std::string(255, 'x') + ">").stopped);
}

TEST(VigilaXml, HoldsClosingTagsThatEndWithinTheWindow) {
  const std::string name(253, 'x');
  EXPECT_FALSE(Read("<" + name + "></" + name + "><Envelope>").stopped);
  const std::string longer(254, 'x');
  EXPECT_TRUE(Read("<" + longer + ">t</" + longer + "><Envelope>").stopped);
}

TEST(VigilaXml, SkipsAttributesUpTo1023Bytes) {
  const auto header = [](size_t index_of_end) {
    // The blank that ended the name is the first byte of the window.
    return "<Envelope><Header " + std::string(index_of_end - 1, 'a') + "><Security>";
  };
  EXPECT_EQ(Read(header(1023)).result, 1);
  EXPECT_TRUE(Read(header(1024)).stopped);
}

TEST(VigilaXml, SkipsAttributesOfADeclarationUpTo1023Bytes) {
  const auto declaration = [](size_t index_of_end) {
    return "<?xml " + std::string(index_of_end - 2, 'a') + "?><Envelope>";
  };
  EXPECT_EQ(Read(declaration(1023)).result, 0);
  EXPECT_TRUE(Read(declaration(1024)).stopped);
}

TEST(VigilaXml, HoldsAttributesWhoseNameAndQuoteLieWithinTheWindow) {
  const auto envelope = [](size_t name, const std::string& equals) {
    return "<Envelope " + std::string(name, 'a') + equals + "\"v\"><Header><Security>";
  };
  EXPECT_EQ(Read(envelope(254, "=")).result, 1);
  for (const auto& [name, equals] :
       {std::pair(255u, "="), std::pair(256u, "="), std::pair(254u, " ="), std::pair(254u, "= ")}) {
    EXPECT_TRUE(Read(envelope(name, equals)).stopped) << name << equals;
    EXPECT_EQ(Read(envelope(name, equals)).result, 0) << name << equals;
  }
}

TEST(VigilaXml, CountsBlanksBeforeANameAndBehindATextIntoTheWindow) {
  const auto tag = [](size_t blanks) { return "<" + std::string(blanks, ' ') + "Envelope>"; };
  EXPECT_EQ(Read(tag(246)).result, 0);  // ">" is byte 255
  EXPECT_TRUE(Read(tag(247)).stopped);
  const auto text = [](size_t before, size_t behind) {
    return Read(Token("<Username>" + std::string(before, ' ') + std::string(200, 'u') +
                      std::string(behind, ' ') + "</Username>"));
  };
  EXPECT_EQ(text(255, 55).username, std::string(200, 'u'));
  EXPECT_FALSE(text(255, 56).username);
  EXPECT_FALSE(text(256, 0).username);
  EXPECT_TRUE(text(0, 56).stopped);
}

TEST(VigilaXml, HoldsTextOfTheBodyToTheSameWindowWhenThereIsNoSecurityHeader) {
  const auto body = [](size_t size) {
    return Read("<Envelope><Body><a>" + std::string(size, 't') + "</a></Body></Envelope>");
  };
  EXPECT_FALSE(body(255).stopped);
  EXPECT_TRUE(body(256).stopped);
}

TEST(VigilaXml, HoldsRunsOfWhiteSpaceOf255Bytes) {
  EXPECT_EQ(Read(std::string(255, ' ') + "<Envelope>").result, 0);
  EXPECT_FALSE(Read(std::string(256, ' ')).stopped);
  EXPECT_TRUE(Read(std::string(256, ' ') + "<Envelope>").stopped);
  EXPECT_TRUE(Read(std::string(257, ' ')).stopped);
}

TEST(VigilaXml, IgnoresTextOfUnknownChildrenOfTheToken) {
  EXPECT_EQ(Read(Token("<Other>text</Other>" + std::string(kFields))), kComplete);
}

// After text directly inside UsernameToken, the next thing looked for is a closing tag, so that the
// siblings that follow disappear.
TEST(VigilaXml, LosesTheSiblingsThatFollowTextInsideTheToken) {
  const Reading reading = Read(Token("text" + std::string(kFields)));
  EXPECT_TRUE(reading.stopped);
  EXPECT_EQ(reading.result, 0);
  EXPECT_FALSE(reading.username);
  EXPECT_FALSE(reading.nonce);
}

TEST(VigilaXml, StopsAtTextBetweenSiblings) {
  const Reading reading = Read(Token("<Username>alice</Username>text<Nonce>n</Nonce>"));
  EXPECT_TRUE(reading.stopped);
  EXPECT_EQ(reading.username, "alice");
  EXPECT_FALSE(reading.nonce);
}

TEST(VigilaXml, StopsAtARepeatedText) {
  for (const char* name : {"Username", "Password", "Nonce", "Created"}) {
    const std::string open = std::string("<") + name + ">";
    const std::string close = std::string("</") + name + ">";
    const Reading reading =
        Read(Token(open + "first" + close + open + "second" + close + "<Extra>e</Extra>"));
    EXPECT_TRUE(reading.stopped) << name;
    for (const Field& field :
         {reading.username, reading.password, reading.nonce, reading.created}) {
      EXPECT_NE(field, "second") << name;
    }
  }
}

TEST(VigilaXml, StopsAtARepeatedType) {
  const Reading reading =
      Read(Token("<Password Type=\"a\" Type=\"b\">p</Password><Nonce>n</Nonce>"));
  EXPECT_TRUE(reading.stopped);
  EXPECT_EQ(reading.type, "a");
  EXPECT_FALSE(reading.password);
}

TEST(VigilaXml, LetsAnEmptyRepeatPass) {
  EXPECT_EQ(Read(Token(std::string(kFields) + "<Nonce/><Nonce></Nonce><Username> </Username>")),
            kComplete);
}

TEST(VigilaXml, LeavesAnElementWithoutTextNull) {
  const Reading reading = Read(Token("<Username></Username><Password/><Nonce> </Nonce>"));
  EXPECT_TRUE(reading.stopped);
  EXPECT_FALSE(reading.username);
  EXPECT_FALSE(reading.password);
  EXPECT_FALSE(reading.nonce);
}

TEST(VigilaXml, FindsAnEnvelopeInsideAnUnknownElement) {
  EXPECT_EQ(Read("<wrapper a='1'><deeper>" + Token(kFields)), kComplete);
}

TEST(VigilaXml, DoesNotFindAHeaderOutsideAnEnvelope) {
  const Reading none{false, 2, {}, {}, {}, {}, {}};
  EXPECT_EQ(Read("<Header><Security><UsernameToken>" + std::string(kFields)), none);
}

TEST(VigilaXml, WantsDoubleQuotesWhereItReadsAttributes) {
  EXPECT_TRUE(Read("<Envelope a='1'>").stopped);
  EXPECT_TRUE(Read(Token("<Password Type='T'>p</Password>")).stopped);
  EXPECT_FALSE(Read("<Envelope><Header a='1'><Security b='2'><UsernameToken c='3'>").stopped);
  // Deliberate: what opens directly under the Envelope is read as strictly as the Envelope.
  EXPECT_TRUE(Read("<Envelope><Body a='1'>").stopped);
}

TEST(VigilaXml, TakesBlanksAroundTheEqualsSignOnly) {
  EXPECT_EQ(*Read(Token("<Password Type \r\n= \t\"T\" >p</Password>")).type, "T");
  for (const char* attributes : {"Type", "Type\"T\"", "Type x=\"T\"", "Type=T", "Type==\"T\"",
                                 "=\"T\"", "a:=\"T\"", "Type=\"T\" /x"}) {
    const Reading reading = Read(Token(std::string("<Password ") + attributes + ">p</Password>") +
                                 std::string(300, 'z'));
    EXPECT_TRUE(reading.stopped) << attributes;
    EXPECT_FALSE(reading.password) << attributes;
  }
}

TEST(VigilaXml, CutsAnAttributePrefixAtTheFirstColon) {
  EXPECT_EQ(*Read(Token("<Password xmlns:Type=\"urn\">p</Password>")).type, "urn");
  EXPECT_EQ(*Read(Token("<Password w:Type=\"T\">p</Password>")).type, "T");
  EXPECT_FALSE(Read(Token("<Password a:b:Type=\"T\">p</Password>")).type);
}

TEST(VigilaXml, EndsATagWhoseAttributesItSkipsAtTheFirstAngleBracket) {
  // The rest of the value is text directly inside Header.
  const Reading reading = Read("<Envelope><Header a=\"x>y\"><Security><UsernameToken>");
  EXPECT_EQ(reading.result, 0);
}

TEST(VigilaXml, LetsAnUnknownChildOfThePasswordSupplyIt) {
  EXPECT_EQ(*Read(Token("<Password><b>p</b></Password>")).password, "p");
}

TEST(VigilaXml, ComparesClosingTagsAsWritten) {
  // None of these closes Username; the next closing tag that does is taken.
  for (const char* close : {"</Username >", "</x:Username>", "</username>", "</ Username>"}) {
    const Reading reading = Read(Token(std::string("<Username>alice") + close +
                                       "<Nonce>n</Nonce></Username>"
                                       "<Created>c</Created>"));
    EXPECT_EQ(reading.username, "alice") << close;
    EXPECT_FALSE(reading.nonce) << close;
    EXPECT_EQ(reading.created, "c") << close;
    EXPECT_TRUE(reading.stopped) << close;
  }
}

TEST(VigilaXml, LetsAnInnerHeaderCloseTheHeader) {
  // Back in the Envelope, Security is unknown.
  EXPECT_FALSE(
      Read("<Envelope><Header><Header></Header><Security><UsernameToken>" + std::string(kFields))
          .username);
}

TEST(VigilaXml, StopsAtEveryMalformedConstruct) {
  for (const char* document :
       {"x", " x", "<>", "< >", "</>x<", "<a:>", "<a/x", "<a/ >", "<=", "\xEF\xBB\xBF<Envelope>",
        "<?xml?>text", "<?xml version='1.0'>", "<?xml/>", "<?xml a='1'/>", "<Envelope>a",
        "<Envelope =\"a\">", "<Envelope a>"}) {
    const Reading reading = Read(std::string(document) + std::string(300, 'z') + "<");
    EXPECT_TRUE(reading.stopped || std::string(document) == "</>x<" ||
                std::string(document) == "<=")
        << document;
  }
}

TEST(VigilaXml, TakesADeclarationWithAndWithoutAttributes) {
  EXPECT_EQ(Read("<?xml?><Envelope>").result, 0);
  EXPECT_EQ(Read("<?xml version=\"1.0\" encoding='utf-8' ?>\r\n<Envelope>").result, 0);
  EXPECT_EQ(Read("< ?xml version=\"1.0\"?><Envelope>").result, 0);
}

TEST(VigilaXml, StopsAtNestingDeeperThan1024Elements) {
  std::string document;
  for (size_t i = 0; i < VigilaXml::kMaximumOpenElements; ++i) document += "<a>";
  EXPECT_FALSE(ReadInPieces(document, document.size()).stopped);
  EXPECT_TRUE(ReadInPieces(document + "<a>", 7).stopped);
}

TEST(VigilaXml, StopsAtMoreThan64KilobytesOfOpenNames) {
  std::string document;
  for (int i = 0; i < 256; ++i) document += "<" + std::string(254, 'n') + ">";
  EXPECT_FALSE(ReadInPieces(document, document.size()).stopped);  // 65,024 bytes
  document += "<" + std::string(254, 'n') + "><" + std::string(254, 'n') + ">";
  EXPECT_FALSE(ReadInPieces(document, document.size()).stopped);             // 65,532 bytes
  EXPECT_FALSE(ReadInPieces(document + "<1234>", document.size()).stopped);  // all of them
  EXPECT_TRUE(ReadInPieces(document + "<12345>", document.size()).stopped);
  // What has been closed is not counted.
  EXPECT_FALSE(ReadInPieces(document + "<1234></1234><1234/><1234>", 7).stopped);
}

TEST(VigilaXml, CountsOnlyElementsThatAreOpenAsNested) {
  std::string document = "<Envelope>";
  for (size_t i = 0; i < 2 * VigilaXml::kMaximumOpenElements; ++i) document += "<a></a><b/>";
  EXPECT_EQ(Read(document + Token(kFields).substr(10)), kComplete);
}

// With a reader that moves what is left of a chunk at every token, this does not end in time.
TEST(VigilaXml, TakesLinearTimeForTenMegabytesInAnyChunking) {
  const std::pair<std::string, std::string> documents[] = {
      {"<Envelope><Body>", "<element></element>"},
      {"<Envelope ", "attribute=\"value\" "},
      {"<Envelope a=\"", "value>"},
      {"<Envelope><Body>text", "<a><b/>"},
      {"<Envelope><Header>", "<" + std::string(100, ' ') + std::string(100, 'n') + "/>"}};
  for (const auto& [head, unit] : documents) {
    std::string document = head;
    while (document.size() < (10 << 20)) document += unit;
    // Byte by byte, a token is looked at again for each of its bytes: a window's worth at most.
    for (const auto& [piece, size] :
         {std::pair(document.size(), document.size()), std::pair(size_t{1460}, size_t{1 << 20}),
          std::pair(size_t{7}, size_t{64 << 10}), std::pair(size_t{1}, size_t{64 << 10})}) {
      const Reading reading = ReadInPieces(document.substr(0, size), piece);
      EXPECT_FALSE(reading.stopped) << head << piece;
      EXPECT_EQ(reading.result, 0) << head << piece;
    }
  }
}

TEST(VigilaXml, KeepsNoMoreThanItsWindowsOfALargeChunk) {
  for (const char* head : {"<Envelope><Body>", "<Envelope a=\"", "<Envelope><Body>text"}) {
    std::string document = head;
    while (document.size() < (1 << 20)) document += "<element></element>";
    VigilaXml reader;
    const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    reader.Parse(document.data(), document.size());
    const size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
    EXPECT_LT(after, before + 64 * 1024) << head;
    EXPECT_FALSE(reader.Stopped()) << head;
  }
}

// Deliberate: what an integrator's client may send and what comes of it; the reference lists it.
TEST(VigilaXml, DecodesNoEntitiesCommentsOrCdata) {
  const std::string rest = std::string(kFields).substr(std::string(kFields).find("<Password"));
  EXPECT_EQ(Read(Token("<Username>a&amp;b</Username>" + rest)).username, "a&amp;b");
  // Inside a value, the raw text before them, or nothing and no end of the header.
  EXPECT_EQ(Read(Token("<Username>al<!-- -->ice</Username>" + rest)).username, "al");
  EXPECT_EQ(Read(Token("<Username>al<![CDATA[ice]]></Username>" + rest)).username, "al");
  for (const char* value : {"<![CDATA[alice]]>", "<!-- -->alice", "<!---->alice"}) {
    const Reading reading = Read(Token("<Username>" + std::string(value) + "</Username>" + rest));
    EXPECT_FALSE(reading.username == "alice" && reading.stopped) << value;
    EXPECT_FALSE(reading.nonce) << value;
  }
  // A comment is an unknown element that stays open: in front of the header's element it does not
  // matter, inside it the header never ends.
  const std::string token = "<UsernameToken>" + std::string(kFields) + "</UsernameToken>";
  EXPECT_EQ(Read("<!-- made by hand --><Envelope><Header><!-- x --><Security>" + token +
                 "</Security></Header>"),
            kComplete);
  Reading open = kComplete;
  open.stopped = false;
  EXPECT_EQ(Read("<Envelope><Header><Security><!-- x -->" + token + "</Security>").stopped, false);
  EXPECT_EQ(Read(Token("<!-- x -->" + std::string(kFields))), open);
  // Directly under the Envelope it is read as strictly as the Envelope.
  EXPECT_TRUE(Read("<Envelope><!-- x --><Header>").stopped);
}

TEST(VigilaXml, LooksThroughUnknownElementsAnywhere) {
  EXPECT_EQ(Read("<Envelope><a><Header><b><Security><c><UsernameToken><d>" + std::string(kFields) +
                 "</d></UsernameToken></c></Security>"),
            kComplete);
}

// "<" and a blank before "/" is no closing tag to the step that looks for one.
TEST(VigilaXml, PassesOverAClosingTagWithABlankInFrontOfItsSlash) {
  const Reading reading = Read(Token("<Username>alice</Username>< /x><Nonce>n</Nonce>"));
  EXPECT_EQ(reading.username, "alice");
  EXPECT_FALSE(reading.nonce);
}

TEST(VigilaXml, DoesNotReadPastTheHeaderOfALargeEnvelope) {
  EXPECT_EQ(ReadInPieces(Token(kFields) + std::string(10 << 20, '<'), 1 << 20), kComplete);
}

TEST(VigilaXml, ReadsAnyBytes) {
  const std::string bytes("\x01\xff\x80\"'", 5);
  EXPECT_EQ(*Read(Token("<Username>" + bytes + "</Username>")).username, bytes);
}

TEST(VigilaXml, IgnoresNullAndEmptyChunks) {
  VigilaXml reader;
  EXPECT_FALSE(reader.Parse(nullptr, 5));
  EXPECT_FALSE(reader.Parse("x", 0));
  EXPECT_TRUE(reader.Parse("x", 1));
  EXPECT_TRUE(reader.Parse(nullptr, 0));
  EXPECT_TRUE(reader.Parse("<Envelope>", 10));
  EXPECT_EQ(reader.Result(), 2);
}

TEST(VigilaXml, NamesTheInnermostElementWithoutItsPrefix) {
  VigilaXml reader;
  EXPECT_EQ(reader.ElementWithoutNs(), "");
  reader.Parse("<a:b:c>", 7);
  EXPECT_EQ(reader.ElementWithoutNs(), "b:c");
}

struct Recording {
  const char* file;
  const char* password;
  const char* nonce;
  const char* created;
};

// What real clients sent for the account alice, written out by hand.
constexpr Recording kRecordings[] = {
    {"0599-zeep12.xml",
     "XgHV9Z7CjeaPFczaChccqTWI6DQ=", "ehHnsJjKeezlgr7xgIpFzg==", "2026-11-21T02:01:00+00:00"},
    {"0600-zeep11.xml",
     "NjXfW5PFYw/VCcR3JmfiP84vVN8=", "kRGJJJSwiG3WSeFDDgqMjA==", "2026-11-21T02:01:00+00:00"},
    {"0601-zeep-zulu.xml",
     "PpCcjbolpX/fgtDHMZOET44+KSQ=", "hrBmze+95QbvANVO8VCzfQ==", "2026-11-21T02:01:00Z"},
    {"0606-zeep-timestamp.xml",
     "uzNvyU8LusWWxTzWvg98c9il3M0=", "KF63KjSr7EogHeP3XL/esg==", "2026-11-21T02:01:00+00:00"},
    {"0612-nodesoap12.xml",
     "+w0asvAOvJ0BbRSguEMvwpcqsjA=", "bZmO5Ln+2BXwyja+eQxoxg==", "2026-11-21T02:01:01Z"},
    {"0613-nodesoap11.xml",
     "rdRU6UrOfjldIupjI4NbneJPZnU=", "1z711Bwm57KqXkCt37p2Pg==", "2026-11-21T02:01:01Z"},
    {"0621-strongsoap.xml",
     "//FtL5plSG6WRkhKsRQ76knYqr8=", "QIcktOEyzLwtFX3DBgYpgTwQvUY=", "2026-11-21T02:01:01Z"},
    {"0623-npmonvif.xml",
     "KqpwsgTRR9n5ngUO+8i71KCgTtQ=", "z8CGaUrNZKOBaOmKL6+Rvg==", "1970-01-01T00:00:00.667Z"},
    {"0634-gsoap.xml",
     "u3ER3pCaUnTnedG6+W/43n9Etf4=", "1vsAa521i/UGmlWN6CU3lEfb3wo=", "2026-11-21T02:03:02Z"},
    {"0636-gsoap-indent.xml",
     "XHAVrJIZH8V6R3iTPe6Rlhue3OQ=", "1vsAa7E203TNZuCgAoVIQRwPmn8=", "2026-11-21T02:03:02Z"},
    {"0644-php12.xml",
     "oizOL0vIWmRUJmGq8bb8Ul2XjIg=", "MeojuRUvUN3/gm6/DH1Yyw==", "2026-11-21T02:03:03Z"},
};

std::string ReadFile(const std::string& name) {
  std::ifstream stream(std::string(TEST_DATA_DIR) + "/soap/" + name, std::ios::binary);
  EXPECT_TRUE(stream) << name;
  return {std::istreambuf_iterator<char>(stream), {}};
}

// What the fields make of the password: Base64(SHA-1(nonce, creation time, password)).
std::string DigestOf(const Recording& recording, const std::string& password) {
  const std::string text =
      krand::lib::Base64::Decode(recording.nonce) + recording.created + password;
  tevra::crypto::GCryptDigest sha(tevra::crypto::GCryptDigest::kSha1);
  sha.Update(text.data(), text.size());
  return krand::lib::Base64::Encode(
      std::string(reinterpret_cast<const char*>(sha.Digest()), sha.DigestSize()));
}

TEST(VigilaXml, ReadsWhatRealClientsSend) {
  for (const Recording& recording : kRecordings) {
    const Reading expected{true,
                           0,
                           "alice",
                           recording.password,
                           "http://docs.oasis-open.org/wss/2004/01/"
                           "oasis-200401-wss-username-token-profile-1.0#PasswordDigest",
                           recording.nonce,
                           recording.created};
    EXPECT_EQ(Read(ReadFile(recording.file)), expected) << recording.file;
    EXPECT_EQ(recording.password, DigestOf(recording, "secret")) << recording.file;
  }
}

TEST(VigilaXml, FindsNothingInARecordedRequestWithoutAToken) {
  const Reading none{false, 0, {}, {}, {}, {}, {}};
  EXPECT_EQ(Read(ReadFile("0622-npmonvif.xml")), none);
}

TEST(VigilaXmlC, AnswersMinusOneUntilItHasStopped) {
  vigila_xml* reader = vigila_xml_create();
  EXPECT_EQ(vigila_xml_parse(reader, "<Envelope>", 10), -1);
  EXPECT_EQ(vigila_xml_result(reader), 0);
  EXPECT_EQ(vigila_xml_username(reader), nullptr);
  EXPECT_EQ(vigila_xml_password(reader), nullptr);
  EXPECT_EQ(vigila_xml_type(reader), nullptr);
  EXPECT_EQ(vigila_xml_nonce(reader), nullptr);
  EXPECT_EQ(vigila_xml_created(reader), nullptr);
  const std::string rest = Token(kFields).substr(10);
  EXPECT_EQ(vigila_xml_parse(reader, rest.data(), rest.size()), 0);
  EXPECT_STREQ(vigila_xml_username(reader), "alice");
  EXPECT_STREQ(vigila_xml_password(reader), "digest");
  EXPECT_STREQ(vigila_xml_type(reader), "T");
  EXPECT_STREQ(vigila_xml_nonce(reader), "n");
  EXPECT_STREQ(vigila_xml_created(reader), "c");
  EXPECT_EQ(vigila_xml_parse(reader, "more", 4), 0);
  vigila_xml_destroy(reader);
  vigila_xml_destroy(nullptr);
}

}  // namespace
}  // namespace vigila::client
