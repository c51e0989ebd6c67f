#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "platform/bus/handler.h"
#include "platform/bus/timer.h"
#include "platform/bus/timer_queue.h"

namespace tn {

// The posts of a program whose replies are awaited. A reply counts when it names the number of a pending post, comes to
// the handler that posted and from the program that was posted to: nobody else can answer in its name. (A post to a
// group takes the first reply.)
//
// Every post ends exactly once: with its reply, at its time-out, by failing, or by being cancelled, in which case its
// callback is destroyed and does not run. Callbacks run from complete() and from the queue's timers, nowhere else.
class Posts {
 public:
  explicit Posts(TimerQueue& timers) : timers_(timers) {}
  Posts(const Posts&) = delete;
  Posts& operator=(const Posts&) = delete;
  ~Posts();

  // What a reply has to match.
  struct Address {
    std::uint32_t handler;  // the id of the handler that posts
    std::uint32_t peer;     // the program or group that it posts to
  };
  struct Ticket {
    PostId id;
    std::uint32_t number;  // the request number
  };
  // `owner` is what cancelAllOf goes by.
  Ticket add(const Handler& owner, const Address& address, ReplyCallback callback, std::uint32_t timeoutMs);
  // A request number for a message that is sent but not kept here.
  [[nodiscard]] std::uint32_t reserveNumber();

  // Runs the callback of the post that the reply belongs to; false when there is none.
  bool complete(std::uint32_t number, const Address& address, const message& reply);
  // Lets the post fail with that code when timers run next. Unknown numbers are left alone.
  void fail(std::uint32_t number, std::uint32_t code);
  // The same, if the post was sent to that peer.
  void failAt(std::uint32_t number, std::uint32_t peer, std::uint32_t code);
  void failAll(std::uint32_t code);

  void cancel(PostId id);
  void cancelAllOf(const Handler& owner);

  [[nodiscard]] std::size_t pending() const { return posts_.size(); }

 private:
  struct Post {
    PostId id = 0;
    const Handler* owner = nullptr;
    Address address{};
    ReplyCallback callback;
    std::uint32_t failure = error::timeout;  // what the timer means
    Timer timer;
  };
  using Table = std::unordered_map<std::uint32_t, Post>;  // by request number

  PostId nextId();
  Post& emplace(std::uint32_t number);
  void failPost(Post& post, std::uint32_t code);
  void expire(std::uint32_t number);
  [[nodiscard]] ReplyCallback remove(Table::iterator place);

  // Table nodes of finished posts, kept so that a post needs no allocation.
  static constexpr std::size_t keptNodes = 64;

  TimerQueue& timers_;
  PostId lastId_ = 0;
  Table posts_;
  std::vector<Table::node_type> spare_;
};

}  // namespace tn
