#include "platform/xml/document.h"

#include <algorithm>
#include <charconv>

namespace xml {
namespace {

constexpr std::string_view trueTexts[] = {"yes", "true", "1"};
constexpr std::string_view falseTexts[] = {"no", "false", "0"};

}  // namespace

template <>
std::optional<bool> Attribute::get<bool>() const {
  if (std::ranges::find(trueTexts, text_) != std::end(trueTexts)) return true;
  if (std::ranges::find(falseTexts, text_) != std::end(falseTexts)) return false;
  return std::nullopt;
}

template <>
std::optional<std::vector<std::uint32_t>> Attribute::get<std::vector<std::uint32_t>>() const {
  std::vector<std::uint32_t> numbers;
  const char* at = text_.data();
  const char* const end = at + text_.size();
  while (true) {
    std::uint32_t number = 0;
    const auto [stop, error] = std::from_chars(at, end, number);
    if (error != std::errc()) return std::nullopt;
    numbers.push_back(number);
    if (stop == end) return numbers;
    if (*stop != ',') return std::nullopt;
    at = stop + 1;
  }
}

const Attribute* AttributeList::find(Id id) const {
  const auto found = std::ranges::find(attributes_, id, &Attribute::id);
  return found == attributes_.end() ? nullptr : &*found;
}

const Attribute* AttributeList::find(std::string_view name) const {
  const auto found = std::ranges::find(attributes_, name, &Attribute::name);
  return found == attributes_.end() ? nullptr : &*found;
}

const Node* Node::find(Id id) const {
  const auto found = std::ranges::find(children_, id, &Node::id);
  return found == children_.end() ? nullptr : &*found;
}

NodeIterator::NodeIterator(const Node& parent, Id id)
    : next_(parent.children().data()), left_(parent.children().size()), id_(id) {
  skipOthers();
}

NodeIterator& NodeIterator::operator++() {
  ++next_;
  --left_;
  skipOthers();
  return *this;
}

void NodeIterator::skipOthers() {
  while (left_ != 0 && next_->id() != id_) {
    ++next_;
    --left_;
  }
}

std::string ParseError::text() const {
  std::string whole = file;
  if (line != 0) {
    whole += ':';
    whole += std::to_string(line);
    whole += ':';
    whole += std::to_string(column);
  }
  whole += ": expected ";
  whole += expected;
  return whole;
}

}  // namespace xml
