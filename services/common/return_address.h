#pragma once

#include "platform/bus/message.h"

namespace service {

// What an answer that comes later needs of its request. The rest of it may be large or secret, and is not to be kept.
inline tn::message returnAddress(const tn::message& request) {
  tn::message address;
  if (const auto path = request.get(tn::field::sender)) address.insert_vector(tn::field::sender, *path);
  if (const auto number = request.get(tn::field::requestNumber)) address.insert(tn::field::requestNumber, *number);
  return address;
}

}  // namespace service
