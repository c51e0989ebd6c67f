#pragma once

#include <cstddef>

#include "platform/bus/message.h"

namespace service {

// Longer paths than this lead nowhere; the answer to a request with one is dropped.
inline constexpr std::size_t maxReturnPath = 64;

// What an answer that comes later needs of its request. The rest of it may be large or secret, and is not to be kept.
inline tn::message returnAddress(const tn::message& request) {
  tn::message address;
  const auto path = request.get(tn::field::sender);
  if (path && path->size() <= maxReturnPath) address.insert_vector(tn::field::sender, *path);
  if (const auto number = request.get(tn::field::requestNumber)) address.insert(tn::field::requestNumber, *number);
  return address;
}

}  // namespace service
