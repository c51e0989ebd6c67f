#pragma once

#include <cstdint>
#include <expected>

#include "services/userd/account_handler.h"

namespace userd {

// Handler 3: lists and changes groups.
class GroupHandler : public AccountHandler {
 public:
  explicit GroupHandler(Accounts& accounts) : AccountHandler(accounts), accounts_(accounts) {}

  tn::message cmdGet(tn::message& msg) override;
  tn::message cmdGetAll(tn::message& msg) override;
  tn::message cmdAddObj(tn::message& msg) override;
  tn::message cmdSetObj(tn::message& msg, std::uint32_t object) override;
  tn::message cmdRemoveObj(tn::message& msg, std::uint32_t object) override;

 private:
  using Subject = std::expected<const Group*, Refusal>;

  // The group that a command names, when it may be about groups at all.
  [[nodiscard]] Subject subjectOf(const tn::message& msg) const;

  Accounts& accounts_;
};

}  // namespace userd
