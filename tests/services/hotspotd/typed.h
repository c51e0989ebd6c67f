#pragma once

#include <gtest/gtest.h>
#include <string_view>

#include "platform/bus/text.h"

// The message that a text in the line form stands for.
inline tn::message typed(std::string_view text) {
  tn::message msg;
  const auto error = tn::readText(text, msg);
  EXPECT_FALSE(error.has_value()) << text << " at " << error->position << ": expected " << error->expected;
  return msg;
}
