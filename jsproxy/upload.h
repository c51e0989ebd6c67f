#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/web/headers.h"

// Where the file of an upload goes.
class UploadTarget {
 public:
  UploadTarget() = default;
  UploadTarget(const UploadTarget&) = delete;
  UploadTarget& operator=(const UploadTarget&) = delete;
  virtual ~UploadTarget() = default;

  // The part's headers are complete.
  virtual void onHeaders(const Headers& headers) = 0;
  // Once, with the name that the browser gave the file. False: it may not be written there.
  [[nodiscard]] virtual bool open(std::string_view name) = 0;
  // The next bytes of the file. False: they could not be written.
  [[nodiscard]] virtual bool write(std::string_view bytes) = 0;
  // The file is complete. False: not all of it could be written.
  [[nodiscard]] virtual bool close() = 0;
};

// Takes the body of a form upload (RFC 7578) apart: the first part is the file, and what follows it does not matter. It
// takes bytes as they come and keeps none of the file.
//
// The end of the file is found by the simplest means: once a byte does not go on with the delimiter, it is data, and it
// is not looked at again as the delimiter's first one. So a delimiter right behind the beginning of one is missed, as
// it always was.
class Upload {
 public:
  // Boundary and header lines in all, without their ends.
  static constexpr std::size_t maxHeaderBytes = 512;

  enum class Phase : std::uint8_t {
    boundaryLine,  // the first line is awaited
    partHeaders,   // lines up to the empty one
    fileData,      // the target is open
    ended,         // complete or failed: nothing more is taken
  };
  enum class Result : std::uint8_t {
    more,         // go on
    complete,     // the file is whole and closed
    badBoundary,  // the first line is another one than was announced
    malformed,    // lines too long, or one that is no header
    refused,      // the target could not be opened
    failed,       // the target could not be written to
  };

  // `target` outlives this.
  Upload(std::string_view boundary, UploadTarget& target);

  // The next piece of the body. After any result but `more` the phase is `ended`.
  [[nodiscard]] Result take(std::string_view piece);

  [[nodiscard]] Phase phase() const { return phase_; }

 private:
  [[nodiscard]] Result takeLines();
  [[nodiscard]] Result takeLine(std::string_view line);
  [[nodiscard]] Result beginFile();
  [[nodiscard]] Result takeData(std::string_view piece);
  [[nodiscard]] bool writeAhead(std::string_view before, std::string_view data);

  std::size_t headerBytes_ = 0;
  Headers headers_;
  const std::string delimiter_;  // CR LF "--" boundary
  std::string held_;             // received before the file began, and not used yet
  UploadTarget& target_;
  std::size_t matched_ = 0;  // bytes of the delimiter that the data seen last has matched
  Phase phase_ = Phase::boundaryLine;
};
