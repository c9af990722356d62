#ifndef BENCHMARKS_SUPPORT_DIGEST_PEERS_H_
#define BENCHMARKS_SUPPORT_DIGEST_PEERS_H_

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/support/digest_load.h"
#include "support/program.h"
#include "support/temp_dir.h"

namespace benchmarks {

// What every server is asked for: one file, by one user.
struct DigestSite {
  static constexpr const char* kTarget = "/jpeg/file.bin";
  static constexpr const char* kUser = "view";
  static constexpr const char* kRealm = "Varno";
  static constexpr const char* kPassword = "view's secret";
  static constexpr size_t kBytes = 4096;

  DigestSite() {
    // Servers that give root's rights up read here as well.
    std::filesystem::permissions(dir.Path(), std::filesystem::perms(0755));
    std::filesystem::create_directories(dir.File("site/jpeg"));
    dir.Write("site/jpeg/file.bin", std::string(kBytes, 'x'));
    dir.Write("users", std::string(kUser) + ":" + kRealm + ":" +
                           Md5Hex(std::string(kUser) + ":" + kRealm + ":" + kPassword) + "\n");
  }
  DigestTask TaskAt(const std::string& host) const {
    return {host, kTarget, kBytes, kUser, kRealm, kPassword, false};
  }
  std::string Root() const { return dir.File("site"); }

  const support::TempDir dir;
};

// A port of the loopback interface that was free a moment ago.
inline std::string FreePort() {
  const support::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no free port");
  }
  return std::to_string(ntohs(address.sin_port));
}

// Another server with a digest check, as a process of its own.
class DigestPeer {
 public:
  // `argv` serves the site at the port.
  DigestPeer(const DigestSite& site, const std::string& name, const std::string& port,
             const std::vector<std::string>& argv)
      : host_("127.0.0.1:" + port) {
    support::ProgramOptions options;
    options.error_file = site.dir.File(name + ".log");
    options.deadline = std::chrono::hours(1);
    program_ = std::make_unique<support::Program>(argv, options);
    const auto until = support::Clock::now() + std::chrono::seconds(20);
    while (!Answers(site)) {
      if (support::Clock::now() > until || program_->EndsWithin(std::chrono::milliseconds(20))) {
        throw std::runtime_error(name + " did not start: " + site.dir.Read(name + ".log"));
      }
    }
  }
  ~DigestPeer() {
    program_->Signal(SIGTERM);
    program_->EndsWithin(std::chrono::seconds(10));
  }
  const std::string& Host() const { return host_; }

 private:
  bool Answers(const DigestSite& site) const {
    try {
      DigestLoad(site.TaskAt(host_), 1);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  const std::string host_;
  std::unique_ptr<support::Program> program_;
};

// libmicrohttpd with its own digest check, set up as the gateway sets it up. The program calls this
// in a process that it starts as `program --serve-digest PORT FILE HA1`.
class MicrohttpdServer {
 public:
  static constexpr const char* kVerb = "--serve-digest";

  static std::unique_ptr<DigestPeer> Start(const DigestSite& site, const std::string& program) {
    const std::string port = FreePort();
    const std::string ha1 = site.dir.Read("users").substr(
        std::string(DigestSite::kUser).size() + std::string(DigestSite::kRealm).size() + 2, 32);
    return std::make_unique<DigestPeer>(
        site, "libmicrohttpd", port,
        std::vector<std::string>{program, kVerb, port, site.Root() + DigestSite::kTarget, ha1});
  }
  // Serves until it is killed.
  static int Serve(char** arguments) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Site site;
    site.file = arguments[1];
    for (size_t i = 0; i < sizeof(site.ha1); ++i) {
      site.ha1[i] =
          static_cast<uint8_t>(std::stoul(std::string(arguments[2] + 2 * i, 2), nullptr, 16));
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(arguments[0])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    MHD_Daemon* daemon = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD, 0, nullptr, nullptr, &Answer, &site, MHD_OPTION_SOCK_ADDR,
        &address, MHD_OPTION_THREAD_POOL_SIZE, 4u, MHD_OPTION_DIGEST_AUTH_RANDOM, size_t{16},
        "benchmark random", MHD_OPTION_NONCE_NC_SIZE, 1024u, MHD_OPTION_END);
    if (daemon == nullptr) return 1;
    while (true) pause();
  }

 private:
  struct Site {
    std::string file;
    uint8_t ha1[MHD_MD5_DIGEST_SIZE];
  };

  static MHD_Result Answer(void* self, MHD_Connection* connection, const char*, const char*,
                           const char*, const char*, size_t*, void** state) {
    // The first call comes before the body, which none of the requests has.
    if (*state == nullptr) {
      *state = self;
      return MHD_YES;
    }
    const auto* site = static_cast<Site*>(self);
    const int result =
        MHD_digest_auth_check_digest2(connection, DigestSite::kRealm, DigestSite::kUser, site->ha1,
                                      sizeof(site->ha1), 300, MHD_DIGEST_ALG_MD5);
    if (result != MHD_YES) return Challenge(connection, result);
    return ServeFile(connection, site->file);
  }
  static MHD_Result Challenge(MHD_Connection* connection, int result) {
    MHD_Response* response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    const MHD_Result queued = MHD_queue_auth_fail_response2(
        connection, DigestSite::kRealm, "opaque", response,
        result == MHD_INVALID_NONCE ? MHD_YES : MHD_NO, MHD_DIGEST_ALG_MD5);
    MHD_destroy_response(response);
    return queued;
  }
  // Read anew for every request, as the others do.
  static MHD_Result ServeFile(MHD_Connection* connection, const std::string& file) {
    const support::Fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    char content[2 * DigestSite::kBytes];
    const ssize_t size = read(fd.Get(), content, sizeof(content));
    if (size < 0) return MHD_NO;
    MHD_Response* response =
        MHD_create_response_from_buffer(static_cast<size_t>(size), content, MHD_RESPMEM_MUST_COPY);
    const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return queued;
  }
};

// Nothing when it is not installed.
inline std::unique_ptr<DigestPeer> StartLighttpd(const DigestSite& site) {
  constexpr const char* kProgram = "/usr/sbin/lighttpd";
  if (access(kProgram, X_OK) != 0) return nullptr;
  const std::string port = FreePort();
  const std::string configuration = site.dir.Write(
      "lighttpd.conf",
      "server.document-root = \"" + site.Root() + "\"\n" +
          "server.bind = \"127.0.0.1\"\nserver.port = " + port + "\n" +
          "server.modules = (\"mod_auth\", \"mod_authn_file\")\n"
          "server.max-keep-alive-requests = 1000000000\n"
          "server.max-keep-alive-idle = 60\n"
          "auth.backend = \"htdigest\"\nauth.backend.htdigest.userfile = \"" +
          site.dir.File("users") + "\"\n" +
          "auth.cache = (\"max-age\" => \"600\")\n"
          "auth.require = (\"\" => (\"method\" => \"digest\", \"realm\" => \"Varno\", "
          "\"require\" => \"valid-user\"))\n");
  return std::make_unique<DigestPeer>(
      site, "lighttpd", port, std::vector<std::string>{kProgram, "-D", "-f", configuration});
}

// Nothing when it is not installed.
inline std::unique_ptr<DigestPeer> StartApache(const DigestSite& site) {
  constexpr const char* kProgram = "/usr/sbin/apache2";
  if (access(kProgram, X_OK) != 0) return nullptr;
  const std::string port = FreePort();
  std::string modules;
  for (const char* name :
       {"mpm_event", "authn_core", "authn_file", "authz_core", "authz_user", "auth_digest"}) {
    modules += std::string("LoadModule ") + name + "_module /usr/lib/apache2/modules/mod_" + name +
               ".so\n";
  }
  const std::string configuration = site.dir.Write(
      "apache.conf",
      modules + "ServerName 127.0.0.1\nListen 127.0.0.1:" + port + "\nUser www-data\n" +
          "Group www-data\nPidFile " + site.dir.File("apache.pid") + "\nDefaultRuntimeDir " +
          site.dir.Path() + "\nErrorLog " + site.dir.File("apache.log") + "\nDocumentRoot " +
          site.Root() + "\nKeepAlive On\nMaxKeepAliveRequests 0\nKeepAliveTimeout 60\n<Directory " +
          site.Root() +
          ">\nAuthType Digest\nAuthName Varno\nAuthDigestProvider file\nAuthUserFile " +
          site.dir.File("users") + "\nRequire valid-user\n</Directory>\n");
  return std::make_unique<DigestPeer>(
      site, "apache", port,
      std::vector<std::string>{kProgram, "-D", "FOREGROUND", "-f", configuration});
}

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_DIGEST_PEERS_H_
