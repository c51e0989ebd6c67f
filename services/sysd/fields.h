#pragma once

#include "platform/bus/message.h"

// Fields of the status and of files; docs/services.md.
namespace sysd::field {

// Why an object could not be read: then its only field.
inline constexpr tn::string_id failure{0xfe000b};
// The parts of an object, or the objects of an answer or push.
inline constexpr tn::message_array_id all{1};

namespace system {
inline constexpr tn::string_id hostName{1};
inline constexpr tn::string_id version{2};
inline constexpr tn::string_id kernel{3};
inline constexpr tn::string_id architecture{4};
inline constexpr tn::u64_id uptime{5};
inline constexpr tn::u32_id load1{6};
inline constexpr tn::u32_id load5{7};
inline constexpr tn::u32_id load15{8};
inline constexpr tn::u32_id processors{9};
inline constexpr tn::u64_id busyTime{0xa};
inline constexpr tn::u64_id allTime{0xb};
inline constexpr tn::u32_id running{0xc};
inline constexpr tn::u32_id tasks{0xd};
inline constexpr tn::u64_id time{0xe};
}  // namespace system

namespace memory {
inline constexpr tn::u64_id total{1};
inline constexpr tn::u64_id available{2};
inline constexpr tn::u64_id free{3};
inline constexpr tn::u64_id buffers{4};
inline constexpr tn::u64_id cached{5};
inline constexpr tn::u64_id swapTotal{6};
inline constexpr tn::u64_id swapFree{7};
}  // namespace memory

namespace storage {
inline constexpr tn::string_id point{1};
inline constexpr tn::string_id type{2};
inline constexpr tn::string_id device{3};
inline constexpr tn::u64_id total{4};
inline constexpr tn::u64_id free{5};
inline constexpr tn::u64_id available{6};
inline constexpr tn::u64_id inodes{7};
inline constexpr tn::u64_id freeInodes{8};
inline constexpr tn::bool_id readOnly{9};
}  // namespace storage

namespace interface {
inline constexpr tn::string_id name{1};
inline constexpr tn::u32_id index{2};
inline constexpr tn::bool_id up{3};
inline constexpr tn::bool_id running{4};
inline constexpr tn::string_id hardware{5};
inline constexpr tn::u32_id largestPacket{6};
inline constexpr tn::addr6_array_id addresses{7};
inline constexpr tn::u32_array_id prefixLengths{8};
inline constexpr tn::u64_id receivedBytes{9};
inline constexpr tn::u64_id receivedPackets{0xa};
inline constexpr tn::u64_id receiveErrors{0xb};
inline constexpr tn::u64_id receiveDropped{0xc};
inline constexpr tn::u64_id sentBytes{0xd};
inline constexpr tn::u64_id sentPackets{0xe};
inline constexpr tn::u64_id sendErrors{0xf};
inline constexpr tn::u64_id sendDropped{0x10};
inline constexpr tn::bool_id loopback{0x11};
}  // namespace interface

namespace process {
inline constexpr tn::u32_id count{2};  // of the object itself
inline constexpr tn::u32_id id{1};
inline constexpr tn::string_id name{2};
inline constexpr tn::string_id state{3};
inline constexpr tn::u32_id parent{4};
inline constexpr tn::u64_id time{5};
inline constexpr tn::u64_id memory{6};
inline constexpr tn::u32_id threads{7};
inline constexpr tn::u64_id began{8};
inline constexpr tn::u32_id user{9};
}  // namespace process

namespace subscription {
inline constexpr tn::u32_array_id objects{1};
inline constexpr tn::u32_id interval{2};
}  // namespace subscription

// What is asked of a directory, and what its listing tells beside the entries.
namespace listing {
inline constexpr tn::string_id after{2};
inline constexpr tn::u32_id entries{3};  // wanted
inline constexpr tn::u32_id shown{3};    // told
inline constexpr tn::u32_id unnamed{4};
}  // namespace listing

namespace entry {
inline constexpr tn::string_id name{1};
inline constexpr tn::u32_id kind{2};
inline constexpr tn::u64_id size{3};
inline constexpr tn::u64_id changed{4};
inline constexpr tn::bool_id sensitive{5};
}  // namespace entry

// What a command is about.
namespace file {
inline constexpr tn::string_id name{1};
inline constexpr tn::string_id newName{2};
}  // namespace file

}  // namespace sysd::field
