#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "platform/bus/bus_link.h"
#include "platform/bus/handler.h"
#include "platform/bus/posts.h"

namespace tn {

// The part of a Looper that knows where messages go: it addresses what handlers send, hands what arrives to the handler
// that it is for, and keeps what is awaited. Owned by the Looper; docs/bus-protocol.md has the rules of paths.
//
// A message that arrives is unflattened before anything is done with it, so nothing here depends on the link's buffer,
// and a handler may wait for another reply (exchange) in the middle of handling. What arrives during such a wait is
// kept and handled afterwards in its order.
class Switchboard : public BusLink::Sink {
 public:
  struct Limits {
    unsigned maxPosts = 65536;  // pending posts before one fails as unreachable
    unsigned maxKept = 4096;    // messages kept while an exchange waits, beyond which the exchange fails
  };
  using Observer =
      std::function<void(std::uint32_t from, std::uint32_t to, FrameKind kind, std::span<const std::uint8_t> payload)>;

  Switchboard(Looper& looper, BusLink& link, TimerQueue& timers, const Limits& limits);
  ~Switchboard() override;

  void addHandler(std::uint32_t id, Handler& handler);
  void removeHandler(std::uint32_t id);
  // Takes the handler off wherever it is, and ends its posts, without telling it.
  void forget(Handler& handler);

  void joinGroup(std::uint32_t group);
  void leaveGroup(std::uint32_t group);
  void control(const message& request, ReplyCallback callback, std::uint32_t timeoutMs);
  void setObserver(Observer observer) { observer_ = std::move(observer); }

  // For Handler; each takes the descriptor of its message in any case.
  void send(const Handler& from, message msg);
  PostId post(const Handler& from, message msg, ReplyCallback callback, std::uint32_t timeoutMs);
  message exchange(const Handler& from, message msg, std::uint32_t timeoutMs);
  // From the handler of that id, which need not be there any more.
  void reply(std::uint32_t handlerId, const message& request, message answer);
  void cancelPost(PostId id) { posts_.cancel(id); }
  bool completePost(const Handler& at, const message& reply);
  UniqueFd takeDescriptor(const message& msg);
  // Closes the descriptor of a message that will not be sent.
  void dropDescriptor(message& msg) { (void)takeOutgoingDescriptor(msg); }
  // Takes a descriptor of this process out of a message; a number that is no open descriptor loses its field.
  static UniqueFd adoptDescriptor(message& msg);
  // Passes the notice that a session ended on to every handler but the looper.
  void tellDisconnected(message& msg);

  // A handler has something to tell at the end of the turn.
  void expectUntold() { untold_ = true; }

  // What is due between two turns of the loop. True: messages are left over, so the next turn must not wait.
  bool finishTurn() {
    return (link_.atRest() && !untold_ && kept_.empty() && arrived_.empty()) ? false : finishBusyTurn();
  }

  void onLinked(std::uint32_t id) override;
  void onUnlinked() override;
  void onFrame(BusLink::Arrival arrival) override;

 private:
  bool finishBusyTurn();

  // One that came from another program; its descriptor field and its descriptor go together.
  struct Message {
    std::uint32_t peer;
    message content;
    UniqueFd descriptor;
  };
  struct Exchange {
    std::uint32_t number;
    Posts::Address address;
    std::optional<message> reply;
  };
  // One that waits for the broker's answer. It always ends with its timer, which runs the callback with `answer`.
  struct ControlPost {
    std::uint32_t operation;
    ReplyCallback callback;
    message answer;
    bool ended;  // `answer` is what the callback gets; before, it is the time-out's
    Timer timer;
  };

  // Makes a message ready to leave: takes its descriptor and the first element of its destination out, puts the handler
  // into its sender path, and clears the fields that the bus owns. Nothing: it has no destination.
  struct Departure {
    std::uint32_t peer;
    UniqueFd descriptor;
  };
  std::optional<Departure> prepare(std::uint32_t handlerId, message& msg);
  bool depart(Departure departure, const message& msg);
  UniqueFd takeOutgoingDescriptor(message& msg);

  // The message of a frame as its handler is to see it, still with the handler's id. Nothing: it is to be dropped.
  static std::optional<Message> receive(BusLink::Arrival& arrival);
  void onMessage(Message arrived);
  void onBounced(std::uint32_t peer, std::span<const std::uint8_t> payload);
  void onUndelivered(std::uint32_t peer, const message& returned);
  void onControlAnswer(std::span<const std::uint8_t> payload);
  void onObserved(std::span<const std::uint8_t> payload) const;
  [[nodiscard]] bool isAwaited(const Message& arrived) const;
  void keep(Message arrived);
  void dispatch(Message arrived);
  void dispatchKept();
  void endControl(ControlPost& post, message answer);
  void sendGroup(std::uint32_t operation, std::uint32_t group);
  // Calls visit(handler) for each handler; they may come and go meanwhile.
  template <typename Visitor>
  void forEachHandler(Visitor&& visit);
  void flushHandlers();

  Looper& looper_;
  BusLink& link_;
  TimerQueue& timers_;
  const Limits limits_;
  std::unordered_map<std::uint32_t, Handler*> handlers_;
  std::set<std::uint32_t> groups_;
  Posts posts_;
  std::list<ControlPost> controls_;
  Observer observer_;
  Exchange* exchange_ = nullptr;  // the wait that is going on
  bool untold_ = false;           // some handler may have something to tell
  std::deque<Message> kept_;
  std::size_t keptBytes_ = 0;
  // Descriptors that arrived and that no handler has taken: closed when the dispatch that brought them ends. Those that
  // went out again in it are none, but their numbers stay known, lest a copy of the message give them away twice.
  struct ArrivedDescriptor {
    explicit ArrivedDescriptor(UniqueFd descriptor)
        : number(static_cast<std::uint32_t>(descriptor.get())), fd(std::move(descriptor)) {}
    std::uint32_t number;
    UniqueFd fd;
  };
  std::vector<ArrivedDescriptor>::iterator findArrived(const message& msg);

  std::vector<ArrivedDescriptor> arrived_;
};

}  // namespace tn
