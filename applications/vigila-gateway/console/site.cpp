#include "vigila-gateway/console/site.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "vigila-gateway/console/snapshot.h"

namespace vigila::gateway {
namespace {

constexpr char kPictureFolder[] = "/jpeg/";
constexpr char kIndex[] = "index.html";

HttpResponse Page(std::string_view title, std::string_view content) {
  HttpResponse response;
  response.headers = {{"Content-Type", "text/html; charset=utf-8"},
                      {"X-Content-Type-Options", "nosniff"}};
  response.body.append("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>")
      .append(title)
      .append("</title></head>\n<body><h1>")
      .append(title)
      .append("</h1>\n")
      .append(content)
      .append("</body></html>\n");
  return response;
}

HttpResponse Start() {
  return Page("Video device",
              "<ul>\n<li><a href=\"/system\">System</a>, open to everybody</li>\n"
              "<li><a href=\"/jpeg/\">Pictures</a>, for viewers</li>\n"
              "<li><a href=\"/inject.cgi\">Injection</a>, for administrators</li>\n"
              "<li><a href=\"/logout\">Log out</a></li>\n</ul>\n");
}

HttpResponse Gallery() {
  std::string images;
  for (unsigned i = 1; i <= Site::kPictures; ++i) {
    const std::string number = std::to_string(i);
    images.append("<img src=\"/jpeg/").append(number).append("\" alt=\"Picture ");
    images.append(number).append("\" width=\"64\" height=\"48\">\n");
  }
  return Page("Pictures", images);
}

HttpResponse Picture(unsigned number) {
  HttpResponse response;
  response.headers = {{"Content-Type", "image/jpeg"}, {"X-Content-Type-Options", "nosniff"}};
  response.body = MakeSnapshot(number);
  return response;
}

HttpResponse System() {
  HttpResponse response;
  response.headers = {{"Content-Type", "application/json"}};
  response.body =
      "{\"Device\":\"video device\",\"Pictures\":" + std::to_string(Site::kPictures) + "}\n";
  return response;
}

HttpResponse Injection() {
  return TextResponse(200, "Injected.");
}

struct BuiltIn {
  std::string_view path;
  HttpResponse (*answer)();
  bool takes_post;
};

constexpr BuiltIn kBuiltIns[] = {
    {"/", &Start, false},        {kPictureFolder, &Gallery, false}, {"/jpeg", &Gallery, false},
    {"/system", &System, false}, {"/inject.cgi", &Injection, true},
};

// The number of a picture's path; one spelling each.
std::optional<unsigned> PictureNumber(std::string_view path) {
  if (!path.starts_with(kPictureFolder)) return std::nullopt;
  path.remove_prefix(std::string_view(kPictureFolder).size());
  if (path.empty() || path.size() > 2 || path.front() == '0') return std::nullopt;
  unsigned number = 0;
  for (const char c : path) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + static_cast<unsigned>(c - '0');
  }
  return number <= Site::kPictures ? std::optional(number) : std::nullopt;
}

HttpResponse NothingHere() {
  return TextResponse(404, "There is nothing here.");
}

HttpResponse NotAllowed(bool takes_post) {
  HttpResponse response = TextResponse(405, "This cannot be done here.");
  response.headers.emplace_back("Allow", takes_post ? "GET, HEAD, POST" : "GET, HEAD");
  return response;
}

}  // namespace

HttpResponse Site::Respond(const std::string& method, const std::string& path) const {
  const BuiltIn* built_in = std::find_if(std::begin(kBuiltIns), std::end(kBuiltIns),
                                         [&](const BuiltIn& b) { return b.path == path; });
  const bool found = built_in != std::end(kBuiltIns);
  const bool takes_post = found && built_in->takes_post;
  if (method != "GET" && method != "HEAD" && !(takes_post && method == "POST")) {
    return NotAllowed(takes_post);
  }
  if (found) return built_in->answer();
  if (const std::optional<unsigned> number = PictureNumber(path)) return Picture(*number);
  if (files_ != nullptr) return RespondFile(path);
  return NothingHere();
}

HttpResponse Site::RespondFile(const std::string& path) const {
  // An index has a path of its own, which may have a rule of its own: it is not served under this
  // one.
  if (path.ends_with('/') && files_->Has(path + kIndex)) {
    HttpResponse response = TextResponse(302, "See the index.");
    response.headers.emplace_back("Location", kIndex);
    return response;
  }
  std::optional<HttpResponse> file = files_->Read(path);
  return file ? *std::move(file) : NothingHere();
}

}  // namespace vigila::gateway
