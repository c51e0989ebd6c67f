#include "jsproxy/upload.h"

#include <algorithm>

namespace {

// The name in a Content-Disposition field as browsers write it, without the folders of their system; "upload" when
// there is none.
std::string_view fileName(std::string_view disposition) {
  constexpr std::string_view before = "filename=\"";
  constexpr std::string_view nameless = "upload";
  const std::size_t found = disposition.find(before);
  if (found == std::string_view::npos) return nameless;
  std::string_view name = disposition.substr(found + before.size());
  const std::size_t end = name.find('"');
  if (end == std::string_view::npos) return nameless;
  name = name.substr(0, end);
  const std::size_t backslash = name.rfind('\\');
  if (backslash != std::string_view::npos) name.remove_prefix(backslash + 1);
  return name.empty() ? nameless : name;
}

std::string_view withoutReturn(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

Upload::Upload(std::string_view boundary, UploadTarget& target)
    : delimiter_(std::string("\r\n--").append(boundary)), target_(target) {}

Upload::Result Upload::take(std::string_view piece) {
  Result result = Result::more;
  switch (phase_) {
    case Phase::boundaryLine:
    case Phase::partHeaders:
      held_ += piece;
      result = takeLines();
      break;
    case Phase::fileData:
      result = takeData(piece);
      break;
    case Phase::ended:
      break;
  }
  if (result != Result::more) phase_ = Phase::ended;
  return result;
}

Upload::Result Upload::takeLines() {
  std::size_t begin = 0;
  Result result = Result::more;
  while (result == Result::more && phase_ != Phase::fileData) {
    const std::size_t end = held_.find('\n', begin);
    const std::string_view line =
        withoutReturn(std::string_view(held_).substr(begin, end == std::string::npos ? end : end - begin));
    // A line that has no end yet counts as well: it can only become longer, and is kept until then.
    if (headerBytes_ + line.size() > maxHeaderBytes) return Result::malformed;
    if (end == std::string::npos) break;
    headerBytes_ += line.size();
    result = takeLine(line);
    begin = end + 1;
  }
  held_.erase(0, begin);
  if (result != Result::more || phase_ != Phase::fileData) return result;
  const std::string data = std::move(held_);
  held_.clear();
  return takeData(data);
}

Upload::Result Upload::takeLine(std::string_view line) {
  if (phase_ == Phase::boundaryLine) {
    // The delimiter is the same behind a line end.
    if (line != std::string_view(delimiter_).substr(2)) return Result::badBoundary;
    phase_ = Phase::partHeaders;
    return Result::more;
  }
  if (line.empty()) return beginFile();
  return headers_.parseHeaderLine(line) ? Result::more : Result::malformed;
}

Upload::Result Upload::beginFile() {
  target_.onHeaders(headers_);
  phase_ = Phase::fileData;
  const bool opened = target_.open(fileName(headers_.getHeader("content-disposition").value_or(std::string_view())));
  return opened ? Result::more : Result::refused;
}

// Of the piece, what is data is written where it stands; only a beginning of the delimiter that an earlier piece ended
// with has to be put before it.
Upload::Result Upload::takeData(std::string_view piece) {
  const std::string_view before = std::string_view(delimiter_).substr(0, matched_);
  bool beforeIsData = before.empty();
  std::size_t at = 0;
  while (at < piece.size() && matched_ < delimiter_.size()) {
    if (matched_ == 0) at = std::min(piece.find(delimiter_.front(), at), piece.size());
    if (at == piece.size()) break;
    if (piece[at] == delimiter_[matched_]) {
      ++matched_;
    } else {
      matched_ = 0;
      beforeIsData = true;
    }
    ++at;
  }
  if (beforeIsData && !writeAhead(before, piece.substr(0, at - matched_))) return Result::failed;
  if (matched_ < delimiter_.size()) return Result::more;
  return target_.close() ? Result::complete : Result::failed;
}

bool Upload::writeAhead(std::string_view before, std::string_view data) {
  return (before.empty() || target_.write(before)) && (data.empty() || target_.write(data));
}
