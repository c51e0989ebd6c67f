#include "http/response_writer.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

#include "http/byte_range.h"
#include "http/connection.h"
#include "http/date_text.h"
#include "http/error_page.h"
#include "http/file_cache.h"
#include "http/file_facts.h"
#include "platform/log.h"
#include "platform/web/functions.h"

namespace {

constexpr std::int64_t cacheSeconds = 31536000;
constexpr std::string_view cacheControl = "max-age=31536000";
constexpr std::uint32_t keepAliveConnections = 100;  // with more of them open, none is kept

class Writer {
 public:
  Writer(const Request& request, Response& response, tn::ThinRunner& runner, Outgoing& out)
      : request_(request), response_(response), runner_(runner), out_(out) {}

  void build(std::string& head) {
    if (response_.status < 300 && !response_.file.empty() && !openFile()) response_.sendError(404, "");
    if (response_.status >= 300) putErrorPage();
    if (!sameHeadAsLast(head)) makeHead(head);
  }

 private:
  // Apart from `build`, which for most responses is all that is needed and so wants to be small.
  [[gnu::noinline]] void makeHead(std::string& head) {
    const std::string ownFields = repeatable() ? std::string(response_.headers.text()) : std::string();
    if (fileOpen()) {
      putFile();
    } else {
      putText();
    }
    putDates();
    out_.keepAlive = keepsAlive();
    set("Connection", out_.keepAlive ? "Keep-Alive" : "close");
    response_.printHeading(head);
    if (repeatable()) {
      out_.cached->keepHead({ownFields, now_, response_.cacheable, out_.keepAlive, head});
      out_.cachedHead = out_.cached->heads();
    }
  }

  void set(std::string_view name, std::string_view value) { response_.headers.addHeader(name, value, false); }
  void set(std::string_view name, std::uint32_t value) {
    response_.headers.addHeader(name, std::uint64_t{value}, false);
  }

  // Whether the head of this response depends on nothing but the file and what FileHead holds.
  [[nodiscard]] bool repeatable() const {
    return out_.cached && response_.status == 200 && response_.statusText.empty() && request_.method == Method::get &&
           !request_.headers.hasHeader("range");
  }

  // True: the file was sent in this second with the very head that is due now.
  bool sameHeadAsLast(std::string& head) {
    if (!repeatable()) return false;
    const FileHead& last = out_.cached->lastHead();
    if (last.second != now_ || last.cacheable != response_.cacheable || last.fields != response_.headers.text() ||
        last.keepAlive != mayKeepAlive()) {
      return false;
    }
    out_.fileRemaining = static_cast<std::uint32_t>(out_.cached->status().st_size);
    out_.keepAlive = last.keepAlive;
    out_.cachedHead = out_.cached->heads();
    head.append(last.text);
    return true;
  }

  [[nodiscard]] bool fileOpen() const { return out_.fileFd || out_.cached; }

  // False: the file cannot be opened, or it is not a regular one, whose reading could block or never end.
  bool openFile() {
    const struct stat* known = response_.deleteFile ? nullptr : rememberedFile(response_.file);
    if (known != nullptr) {
      out_.cached = fileCache().find(response_.file, *known, rememberedPlace());
      if (out_.cached) {
        status_ = &out_.cached->status();
        return true;
      }
      if (!S_ISREG(known->st_mode)) return false;
    }
    return openUnknown(known != nullptr);
  }

  // `remembered`: it is a file for the cache.
  bool openUnknown(bool remembered) {
    UniqueFd fd(open(response_.file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd) return false;
    if (fstat(fd.get(), &opened_) == 0) {
      status_ = &opened_;
      if (!S_ISREG(opened_.st_mode)) return false;
    } else {
      logSystemError("fstat");
    }
    if (response_.deleteFile) unlink(response_.file.c_str());
    if (remembered && status_ != nullptr) out_.cached = fileCache().insert(runner_, response_.file, fd, *status_);
    out_.fileFd = std::move(fd);
    return true;
  }

  void putErrorPage() {
    response_.cacheable = false;
    response_.send(errorPage(response_.status, response_.getStatusDescription()));
  }

  void putText() {
    set("Content-Length", static_cast<std::uint32_t>(response_.body.size()));
    if (request_.method != Method::head) out_.text = response_.body;
  }

  void putFile() {
    if (status_ != nullptr) {
      out_.fileRemaining = static_cast<std::uint32_t>(status_->st_size);
      putRange();
      set("Content-Length", out_.fileRemaining);
      if (out_.cached) {
        set("Last-Modified", out_.cached->lastModified());
      } else {
        set("Last-Modified", httpDate(status_->st_mtim.tv_sec));
      }
    }
    if (request_.method != Method::head) return;
    // fileRemaining stays: the write that follows the head fails for want of a file, and so ends the connection.
    out_.fileFd.reset();
    out_.cached.reset();
  }

  void putRange() {
    const auto value = request_.headers.getHeader("range");
    if (!value) return;
    const std::uint32_t size = out_.fileRemaining;
    const auto range = parseRange(*value, size);
    if (!range) return;
    std::array<char, 128> text;
    std::snprintf(text.data(), text.size(), "bytes %u-%u/%u", range->first, range->last, size);
    set("Content-Range", text.data());
    out_.fileOffset = range->first;
    out_.fileRemaining = range->length();
  }

  void putDates() {
    static DateText date;
    static DateText expiry;
    set("Date", date.at(now_));
    if (response_.cacheable) {
      set("Expires", expiry.at(now_ + cacheSeconds));
      set("Cache-Control", cacheControl);
    } else {
      set("Pragma", "no-cache");
      set("Cache-Control", "no-store");
      set("Expires", "0");
    }
  }

  // Whether request, response and load allow it.
  [[nodiscard]] bool mayKeepAlive() const {
    if (!response_.keepAlivePermitted || openConnections > keepAliveConnections) return false;
    return request_.version <= version10 ? request_.headers.headerHasToken("connection", "keep-alive")
                                         : !request_.headers.headerHasToken("connection", "close");
  }
  [[nodiscard]] bool keepsAlive() const { return mayKeepAlive() && response_.headers.hasHeader("content-length"); }

  const Request& request_;
  Response& response_;
  tn::ThinRunner& runner_;
  Outgoing& out_;
  const std::int64_t now_ = std::time(nullptr);
  const struct stat* status_ = nullptr;  // of the open file; null when fstat failed
  struct stat opened_;                   // where it is kept when the cache does not
};

}  // namespace

void buildResponse(const Request& request, Response& response, tn::ThinRunner& runner, std::string& head,
                   Outgoing& out) {
  Writer(request, response, runner, out).build(head);
}
