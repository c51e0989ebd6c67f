#pragma once

#include <array>

#include "services/sysd/source.h"

namespace sysd {

// Figures that a test makes up: each object has one number, and counts how often it was read.
class FakeSource : public Source {
 public:
  tn::message read(Object object) override {
    const auto index = static_cast<std::size_t>(object) - 1;
    ++reads[index];
    tn::message msg;
    msg.insert(tn::u32_id(1), figures[index]);
    return msg;
  }

  unsigned& figure(Object object) { return figures[static_cast<std::size_t>(object) - 1]; }
  [[nodiscard]] unsigned readsOf(Object object) const { return reads[static_cast<std::size_t>(object) - 1]; }

  std::array<unsigned, objectCount> figures{};
  std::array<unsigned, objectCount> reads{};
};

}  // namespace sysd
