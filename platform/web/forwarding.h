#pragma once

// Fields of a forwarded request and of its answer (docs/forwarded-requests.md). A service that answers requests
// includes this too.

#include "platform/bus/field.h"

namespace forwarding {

// The request.
inline constexpr tn::u32_id method{1};
inline constexpr tn::string_id target{2};
inline constexpr tn::string_id query{3};
inline constexpr tn::u32_id version{4};
inline constexpr tn::string_array_id headerLines{5};  // in the answer too
inline constexpr tn::addr6_id peerAddress{6};
inline constexpr tn::u32_id peerPort{7};
inline constexpr tn::addr6_id localAddress{8};
inline constexpr tn::u32_id localPort{9};
inline constexpr tn::addr6_id originalAddress{10};
inline constexpr tn::u32_id originalPort{11};
inline constexpr tn::bool_id tls{12};
inline constexpr tn::bool_id unixListener{13};
inline constexpr tn::u32_id tag{14};
inline constexpr tn::string_id path{15};
inline constexpr tn::string_id body{30};  // in the answer too

// The answer.
inline constexpr tn::u32_id status{1};
inline constexpr tn::string_id statusText{2};
inline constexpr tn::bool_id cacheable{16};

}  // namespace forwarding
