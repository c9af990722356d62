#include "vigila-gateway/soap/soap_fault.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using vigila::gateway::HttpHeaders;
using vigila::gateway::HttpResponse;
using vigila::gateway::IsSoapMediaType;
using vigila::gateway::SoapFault;
using vigila::gateway::SoapFaultResponse;
using vigila::gateway::SoapResponse;
using vigila::gateway::SoapVersion;
using vigila::gateway::SoapVersionOf;

constexpr char kStart11[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<env:Envelope xmlns:env=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-wssecurity-secext-1.0.xsd\"><env:Body>";
constexpr char kStart12[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<env:Envelope xmlns:env=\"http://www.w3.org/2003/05/soap-envelope\" "
    "xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-wssecurity-secext-1.0.xsd\"><env:Body>";
constexpr char kEnd[] = "</env:Body></env:Envelope>\n";

std::string Fault11(const std::string& code, const std::string& text) {
  return kStart11 + ("<env:Fault><faultcode>" + code) + "</faultcode><faultstring>" + text +
         "</faultstring></env:Fault>" + kEnd;
}

std::string Fault12(const std::string& code, const std::string& text) {
  return kStart12 + ("<env:Fault><env:Code>" + code) +
         "</env:Code><env:Reason><env:Text xml:lang=\"en\">" + text +
         "</env:Text></env:Reason></env:Fault>" + kEnd;
}

TEST(SoapMediaType, IsOneOfTwoInAnyCaseAndWithAnyParameters) {
  for (const char* type :
       {"text/xml", "TEXT/XML", "text/xml; charset=utf-8", "text/xml;charset=utf-8", "text/xml ",
        "application/soap+xml", "Application/Soap+Xml; action=\"x\"", "application/soap+xml\t;a"}) {
    EXPECT_TRUE(IsSoapMediaType(type)) << type;
  }
  for (const char* type :
       {"", ";", "text", "text/xm", "text/xml2", "application/xml", "application/soap",
        "application/soap+xml2", "text/plain; text/xml", "text/xml, application/soap+xml"}) {
    EXPECT_FALSE(IsSoapMediaType(type)) << type;
  }
}

TEST(SoapMediaType, SaysWhichVersionItIs) {
  EXPECT_EQ(SoapVersionOf("text/xml"), SoapVersion::k11);
  EXPECT_EQ(SoapVersionOf("text/xml; charset=utf-8"), SoapVersion::k11);
  EXPECT_EQ(SoapVersionOf("application/soap+xml"), SoapVersion::k12);
  EXPECT_EQ(SoapVersionOf("application/SOAP+xml; charset=utf-8"), SoapVersion::k12);
  EXPECT_EQ(SoapVersionOf(""), SoapVersion::k11);
}

TEST(SoapResponse, IsABodyInAnEnvelopeOfItsVersion) {
  const HttpResponse old = SoapResponse(SoapVersion::k11, "<a/>");
  EXPECT_EQ(old.status, 200);
  EXPECT_EQ(old.headers, (HttpHeaders{{"Content-Type", "text/xml; charset=utf-8"},
                                      {"Cache-Control", "no-store"}}));
  EXPECT_EQ(old.body, kStart11 + std::string("<a/>") + kEnd);
  const HttpResponse recent = SoapResponse(SoapVersion::k12, "");
  EXPECT_EQ(recent.status, 200);
  EXPECT_EQ(recent.headers, (HttpHeaders{{"Content-Type", "application/soap+xml; charset=utf-8"},
                                         {"Cache-Control", "no-store"}}));
  EXPECT_EQ(recent.body, std::string(kStart12) + kEnd);
}

TEST(SoapFault, HasTheShapeOfItsVersion) {
  const char text[] = "The security token could not be authenticated or authorized";
  const HttpResponse old = SoapFaultResponse(SoapVersion::k11, SoapFault::kFailedAuthentication);
  EXPECT_EQ(old.body, Fault11("wsse:FailedAuthentication", text));
  EXPECT_EQ(old.headers, SoapResponse(SoapVersion::k11, "").headers);
  const HttpResponse recent = SoapFaultResponse(SoapVersion::k12, SoapFault::kFailedAuthentication);
  EXPECT_EQ(recent.body, Fault12("<env:Value>env:Sender</env:Value><env:Subcode>"
                                 "<env:Value>wsse:FailedAuthentication</env:Value></env:Subcode>",
                                 text));
  EXPECT_EQ(recent.headers, SoapResponse(SoapVersion::k12, "").headers);
}

TEST(SoapFault, HasAStatusACodeAndATextForEachCause) {
  const std::string authentication =
      "<env:Value>env:Sender</env:Value><env:Subcode><env:Value>wsse:FailedAuthentication"
      "</env:Value></env:Subcode>";
  const std::string sender = "<env:Value>env:Sender</env:Value>";
  const struct {
    SoapFault fault;
    int status11, status12;
    const char* code11;
    std::string code12;
    const char* text;
  } rows[] = {
      {SoapFault::kFailedAuthentication, 500, 400, "wsse:FailedAuthentication", authentication,
       "The security token could not be authenticated or authorized"},
      {SoapFault::kNotAuthorized, 403, 403, "wsse:FailedAuthentication", authentication,
       "The account may not do this"},
      {SoapFault::kMalformed, 400, 400, "env:Client", sender, "The request is malformed"},
      {SoapFault::kTooLarge, 413, 413, "env:Client", sender, "The request is too large"},
      {SoapFault::kThrottled, 429, 429, "env:Client", sender,
       "Too many failed logons from this address"},
      {SoapFault::kUnavailable, 503, 503, "env:Server", "<env:Value>env:Receiver</env:Value>",
       "The authentication service cannot be reached"},
  };
  for (const auto& row : rows) {
    const HttpResponse old = SoapFaultResponse(SoapVersion::k11, row.fault);
    EXPECT_EQ(old.status, row.status11) << row.text;
    EXPECT_EQ(old.body, Fault11(row.code11, row.text));
    const HttpResponse recent = SoapFaultResponse(SoapVersion::k12, row.fault);
    EXPECT_EQ(recent.status, row.status12) << row.text;
    EXPECT_EQ(recent.body, Fault12(row.code12, row.text));
  }
}

}  // namespace
