#include "http/date_text.h"

#include "platform/web/functions.h"

std::string_view DateText::at(std::int64_t seconds) {
  if (text_.empty() || seconds != seconds_) {
    seconds_ = seconds;
    text_ = httpDate(seconds);
  }
  return text_;
}
