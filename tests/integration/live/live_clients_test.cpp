#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/gateway_process.h"

namespace {

using support::Finished;
using support::GatewayFixture;
using support::ProgramOptions;
using support::RunProgram;

#define SKIP_WITHOUT(program) \
  if (access(program, X_OK) != 0) GTEST_SKIP() << program << " is not installed"

class ALiveClient : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fixture_.Start()) << fixture_.device.Log() << fixture_.gateway.Log();
  }
  // The gateway's address with the account in front, as URLs carry it.
  std::string UrlWith(const std::string& account, const std::string& target) const {
    return "http://" + account + "@" + fixture_.gateway.HostAndPort() + target;
  }
  static Finished Run(const std::vector<std::string>& argv) {
    ProgramOptions options;
    options.deadline = std::chrono::seconds(120);
    return RunProgram(argv, options);
  }
  int Count(const std::string& text) const {
    const std::string log = fixture_.gateway.Log();
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }

  GatewayFixture fixture_;
};

TEST_F(ALiveClient, WgetGetsItsPicture) {
  SKIP_WITHOUT("/usr/bin/wget");
  const std::string url = fixture_.gateway.Url() + "/jpeg/1";
  const Finished right =
      Run({"/usr/bin/wget", "-q", "-O-", "--user=view", "--password=view's secret", url});
  EXPECT_EQ(right.exit_code, 0) << right.err;
  EXPECT_EQ(right.out.substr(0, 3), "\xff\xd8\xff");
  EXPECT_NE(Run({"/usr/bin/wget", "-q", "-O-", "--user=view", "--password=x", url}).exit_code, 0);
}

TEST_F(ALiveClient, PythonRequestsGetsItsPicture) {
  SKIP_WITHOUT("/usr/bin/python3");
  if (Run({"/usr/bin/python3", "-c", "import requests"}).exit_code != 0) {
    GTEST_SKIP() << "python3-requests is not installed";
  }
  const std::string script =
      "import sys, requests\n"
      "from requests.auth import HTTPDigestAuth\n"
      "url = sys.argv[1]\n"
      "s = requests.Session(); s.auth = HTTPDigestAuth('view', \"view's secret\")\n"
      "print([s.get(url + '/jpeg/%d' % i).status_code for i in (1, 2, 3)],\n"
      "      s.get(url + '/inject.cgi').status_code,\n"
      "      requests.get(url + '/jpeg/1').status_code,\n"
      "      requests.get(url + '/jpeg/1', auth=HTTPDigestAuth('view', 'x')).status_code)\n";
  const Finished end = Run({"/usr/bin/python3", "-c", script, fixture_.gateway.Url()});
  EXPECT_EQ(end.out, "[200, 200, 200] 403 401 401\n") << end.err;
}

TEST_F(ALiveClient, FfmpegReadsItsPicture) {
  SKIP_WITHOUT("/usr/bin/ffmpeg");
  const auto read = [](const std::string& url) {
    return Run({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "jpeg_pipe", "-i", url, "-f",
                "rawvideo", "-pix_fmt", "gray", "-"});
  };
  const Finished right = read(UrlWith("view:view%27s%20secret", "/jpeg/1"));
  EXPECT_EQ(right.exit_code, 0) << right.err;
  EXPECT_EQ(right.out.size(), 64u * 48u);
  EXPECT_NE(read(UrlWith("view:x", "/jpeg/1")).exit_code, 0);
}

TEST_F(ALiveClient, ChromiumShowsThePageWithAllItsPictures) {
  SKIP_WITHOUT("/usr/bin/chromium");
  const support::TempDir profile;
  const Finished end = Run({"/usr/bin/chromium", "--headless=new", "--no-sandbox", "--disable-gpu",
                            "--disable-dev-shm-usage", "--user-data-dir=" + profile.Path(),
                            "--virtual-time-budget=20000", "--dump-dom",
                            UrlWith("view:view%27s%20secret", "/jpeg/")});
  EXPECT_NE(end.out.find("<h1>Pictures</h1>"), std::string::npos) << end.err;
  for (int i = 1; i <= 40; ++i) {
    const std::string path = "\"path\":\"/jpeg/" + std::to_string(i) + "\"";
    const std::string log = fixture_.gateway.Log();
    bool shown = false;
    for (size_t at = log.find(path); at != std::string::npos; at = log.find(path, at + 1)) {
      const std::string line = log.substr(at, log.find('\n', at) - at);
      shown = shown || line.find("\"status\":200") != std::string::npos;
    }
    EXPECT_TRUE(shown) << path;
  }
}

// nginx as the device's web server: every request is first asked about at the gateway.
class AnNginx : public ALiveClient {
 protected:
  void StartNginx() {
    const support::TempDir& dir = fixture_.gateway.Dir();
    std::string configuration = ReadFile(NGINX_CONFIGURATION);
    Replace(configuration, "127.0.0.1:8090", fixture_.gateway.HostAndPort());
    Replace(configuration, "listen 80;", "listen unix:" + dir.File("nginx.socket") + ";");
    Replace(configuration, "/srv/device", dir.Path());
    dir.Write("page.html", "behind nginx");
    dir.Write("inject.cgi", "administrators only");
    dir.Write("nginx.conf", "daemon off; pid " + dir.File("pid") +
                                "; error_log stderr; user root;\nevents {}\nhttp {\n"
                                "access_log off;\n" +
                                configuration + "}\n");
    ProgramOptions options;
    options.error_file = dir.File("nginx.log");
    options.deadline = std::chrono::seconds(120);
    // Its test of the configuration says whether the sample is right.
    const Finished checked = Run({"/usr/sbin/nginx", "-t", "-c", dir.File("nginx.conf")});
    ASSERT_EQ(checked.exit_code, 0) << checked.err;
    nginx_ = std::make_unique<support::Program>(
        std::vector<std::string>{"/usr/sbin/nginx", "-c", dir.File("nginx.conf")}, options);
  }
  std::string Status(std::vector<std::string> arguments, const std::string& target) const {
    const support::TempDir& dir = fixture_.gateway.Dir();
    arguments.insert(
        arguments.begin(),
        {"/usr/bin/curl", "-s", "--retry", "20", "--retry-all-errors", "-o", dir.File("body"), "-w",
         "%{http_code}", "--unix-socket", dir.File("nginx.socket")});
    arguments.push_back("http://device" + target);
    return Run(arguments).out;
  }
  void TearDown() override {
    if (nginx_ == nullptr) return;
    nginx_->Signal(SIGTERM);
    nginx_->Finish();
  }
  static std::string ReadFile(const std::string& path) {
    std::ifstream stream(path);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  static void Replace(std::string& text, const std::string& old, const std::string& now) {
    ASSERT_NE(text.find(old), std::string::npos) << old;
    for (size_t at = text.find(old); at != std::string::npos; at = text.find(old, at)) {
      text.replace(at, old.size(), now);
      at += now.size();
    }
  }

  std::unique_ptr<support::Program> nginx_;
};

TEST_F(AnNginx, ProtectsItsSiteWithTheDevicesAccounts) {
  SKIP_WITHOUT("/usr/sbin/nginx");
  StartNginx();
  const std::vector<std::string> view = {"--digest", "-u", "view:view's secret"};
  const std::vector<std::string> admin = {"--digest", "-u", "admin:admin's secret"};
  EXPECT_EQ(Status({}, "/page.html"), "200");
  EXPECT_EQ(Status({}, "/inject.cgi"), "401");
  EXPECT_EQ(Status(view, "/inject.cgi"), "403");
  EXPECT_EQ(Status(admin, "/inject.cgi?a=b"), "200");
  EXPECT_EQ(Status(admin, "/jpeg/../%69nject.cgi"), "200");
  EXPECT_EQ(Status({"--digest", "-u", "admin:x"}, "/inject.cgi"), "401");
  fixture_.device.Stop(SIGKILL);
  EXPECT_EQ(Status({"--retry", "0"}, "/inject.cgi"), "500");
}

// A SOAP client with a UsernameToken digest; its service description is made for the test.
TEST_F(ALiveClient, ZeepIsLetInWithTheRightPasswordOnly) {
  SKIP_WITHOUT("/usr/bin/python3");
  if (Run({"/usr/bin/python3", "-c", "import zeep"}).exit_code != 0) {
    GTEST_SKIP() << "python3-zeep is not installed";
  }
  const std::string script = R"(
import sys, datetime, zeep
from zeep.wsse.username import UsernameToken
def call(password, created=None, nonce=None):
    token = UsernameToken('view', password, use_digest=True, created=created, nonce=nonce)
    client = zeep.Client(sys.argv[1], wsse=token)
    service = client.create_service('{urn:vigila:device}DeviceBinding', sys.argv[2] + '/onvif/device')
    try:
        return service.GetDevice()['Name']
    except zeep.exceptions.Fault as fault:
        return fault.code
now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
right = "view's secret"
print(call(right))
print(call('wrong'))
print(call(right, created=now - datetime.timedelta(minutes=6)))
print(call(right, nonce='the very same'))
print(call(right, nonce='the very same'))
)";
  const std::string description =
      fixture_.gateway.Dir().Write("device.wsdl", R"(<?xml version="1.0"?>
<definitions xmlns="http://schemas.xmlsoap.org/wsdl/" xmlns:soap="http://schemas.xmlsoap.org/wsdl/soap/"
    xmlns:xs="http://www.w3.org/2001/XMLSchema" xmlns:d="urn:vigila:device" targetNamespace="urn:vigila:device">
  <types><xs:schema targetNamespace="urn:vigila:device" elementFormDefault="qualified">
    <xs:element name="GetDevice"><xs:complexType/></xs:element>
    <xs:element name="GetDeviceResponse"><xs:complexType><xs:sequence>
      <xs:element name="Name" type="xs:string"/><xs:element name="Time" type="xs:dateTime"/>
    </xs:sequence></xs:complexType></xs:element>
  </xs:schema></types>
  <message name="Ask"><part name="parameters" element="d:GetDevice"/></message>
  <message name="Tell"><part name="parameters" element="d:GetDeviceResponse"/></message>
  <portType name="Device"><operation name="GetDevice">
    <input message="d:Ask"/><output message="d:Tell"/></operation></portType>
  <binding name="DeviceBinding" type="d:Device">
    <soap:binding style="document" transport="http://schemas.xmlsoap.org/soap/http"/>
    <operation name="GetDevice"><soap:operation soapAction=""/>
      <input><soap:body use="literal"/></input><output><soap:body use="literal"/></output></operation>
  </binding>
  <service name="DeviceService"><port name="Device" binding="d:DeviceBinding">
    <soap:address location="http://127.0.0.1/onvif/device"/></port></service>
</definitions>
)");
  const Finished end = Run({"/usr/bin/python3", "-c", script, description, fixture_.gateway.Url()});
  EXPECT_EQ(end.out,
            "video device\nwsse:FailedAuthentication\nwsse:FailedAuthentication\nvideo device\n"
            "wsse:FailedAuthentication\n")
      << end.err;
}

}  // namespace
