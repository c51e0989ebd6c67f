#include "services/busd/wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace busd {

namespace {

// Room for as many as one send can carry: those that find none are closed by the kernel while it receives.
constexpr std::size_t controlBytes = CMSG_SPACE(descriptorsPerSend * sizeof(int));

// Takes every descriptor out of the control data; the first is kept, the others are closed. Returns how many there
// were, and the highest number among them.
std::size_t takeDescriptors(msghdr& header, PassedFd& kept, int& highest) {
  std::size_t count = 0;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t here = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < here; ++i) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(part) + i * sizeof(int), sizeof number);
      highest = std::max(highest, number);
      PassedFd descriptor{UniqueFd(number)};
      if (count++ == 0) kept = std::move(descriptor);
    }
  }
  return count;
}

void noteDescriptors(msghdr& header, Received& received) {
  const std::size_t count = takeDescriptors(header, received.descriptor, received.highest);
  const bool cut = (header.msg_flags & MSG_CTRUNC) != 0;
  if (count > 1 || (count == 1 && cut)) {
    received.descriptor.drop();
    received.passed = Received::Descriptor::several;
  } else if (count == 1) {
    received.passed = Received::Descriptor::one;
  } else if (cut) {
    received.passed = Received::Descriptor::lost;
  }
}

// `control` has room for one descriptor.
void putDescriptor(msghdr& header, std::span<char> control, int descriptor) {
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  cmsghdr* part = CMSG_FIRSTHDR(&header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(part), &descriptor, sizeof descriptor);
}

SendError sendErrorOf(int error) {
  if (error == EAGAIN || error == EWOULDBLOCK) return SendError::blocked;
  return error == ETOOMANYREFS ? SendError::descriptorRefused : SendError::failed;
}

}  // namespace

Received receive(int socket, std::span<iovec> parts) {
  alignas(cmsghdr) char control[controlBytes];
  msghdr header{};
  header.msg_iov = parts.data();
  header.msg_iovlen = parts.size();
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  ssize_t n = -1;
  do {
    n = recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (n < 0 && errno == EINTR);

  Received received;
  if (n < 0) {
    const bool later = errno == EAGAIN || errno == EWOULDBLOCK;
    received.outcome = later ? Received::Outcome::nothing : Received::Outcome::end;
    return received;
  }
  if (header.msg_controllen != 0 || (header.msg_flags & MSG_CTRUNC) != 0) noteDescriptors(header, received);
  received.outcome = n == 0 ? Received::Outcome::end : Received::Outcome::bytes;
  received.count = static_cast<std::size_t>(n);
  return received;
}

Sent sendParts(int socket, std::span<iovec> parts, int descriptor) {
  constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr header{};
  header.msg_iov = parts.data();
  header.msg_iovlen = parts.size();
  if (descriptor >= 0) putDescriptor(header, control, descriptor);
  // The plain call spares the kernel the copies of the header and of the list.
  const bool plain = parts.size() == 1 && descriptor < 0;
  ssize_t n = -1;
  do {
    n = plain ? send(socket, parts[0].iov_base, parts[0].iov_len, flags) : sendmsg(socket, &header, flags);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return {.ok = false, .error = sendErrorOf(errno)};
  return {.count = static_cast<std::size_t>(n)};
}

}  // namespace busd
