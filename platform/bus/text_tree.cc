// The indented tree, and the names that stand in it.

#include <algorithm>
#include <arpa/inet.h>

#include "platform/bus/files.h"
#include "platform/bus/text.h"
#include "platform/bus/text_parts.h"

namespace tn {

namespace {

using Bytes = std::span<const std::uint8_t>;
using Field = message::Field;

struct CommandName {
  std::uint32_t number;
  std::string_view name;
};

constexpr CommandName commandNames[] = {
    {command::getObj, "getObj"},
    {command::disconnected, "disconnected"},
    {command::getPolicies, "getPolicies"},
    {command::get, "get"},
    {command::set, "set"},
    {command::reset, "reset"},
    {command::setObj, "setObj"},
    {command::getAll, "getAll"},
    {command::stopGetAll, "stopGetAll"},
    {command::addObj, "addObj"},
    {command::removeObj, "removeObj"},
    {command::moveObj, "moveObj"},
    {command::getCount, "getCount"},
    {command::shutdown, "shutdown"},
};

template <FieldType T>
constexpr FieldName named(FieldId<T> id, std::string_view name) {
  return {static_cast<std::uint32_t>(T) | id.id, name};
}

constexpr FieldName headerNames[] = {
    named(field::destination, "destination"),
    named(field::sender, "sender"),
    named(field::command, "command"),
    named(field::user, "user"),
    named(field::policies, "policies"),
    named(field::descriptor, "descriptor"),
    named(field::objectNumber, "object number"),
    named(field::disabled, "disabled"),
    named(field::requestNumber, "request number"),
    named(field::isReply, "reply"),
    named(field::errorCode, "error"),
    named(field::errorText, "error text"),
};

constexpr std::uint32_t keyOf(const Field& field) {
  return static_cast<std::uint32_t>(field.type) | field.id;
}

template <FieldType T>
constexpr bool is(const Field& field, FieldId<T> id) {
  return keyOf(field) == (static_cast<std::uint32_t>(T) | id.id);
}

std::string addressText(const Addr6& address) {
  char text[INET6_ADDRSTRLEN];
  return ::inet_ntop(AF_INET6, address.data(), text, sizeof text) != nullptr ? text : "";
}

// Writes the fields of one message; what does not fit behind a key stands in lines below it, indented.
class TreeWriter {
 public:
  TreeWriter(std::string& out, std::size_t indent, const FieldNames* names)
      : out_(out), indent_(indent), names_(names) {}

  void write(const message& msg) {
    const FieldNames* const names = names_ == nullptr ? nullptr : &names_->of(msg);
    msg.forEach([&](const Field& field) {
      out_.append(indent_, ' ');
      appendKey(out_, field);
      const std::string_view name = fieldName(keyOf(field), names);
      if (!name.empty()) out_.append(" ").append(name);
      out_ += ':';
      const FieldName* const entry = names == nullptr ? nullptr : names->find(keyOf(field));
      below_ = entry == nullptr ? nullptr : entry->below;
      writeValue(field);
    });
  }

 private:
  static constexpr std::size_t indentStep = 2;
  static constexpr std::size_t bytesPerLine = 16;

  void writeValue(const Field& field) {
    switch (field.type) {
      case FieldType::boolean:
        return endLine(field.asBool() ? "yes" : "no");
      case FieldType::u32:
        return writeNumber(field);
      case FieldType::addr6:
        return endLine(addressText(field.asAddr6()));
      case FieldType::raw:
        return writeBytes(field.asRaw());
      case FieldType::message:
        return writeNested(field.asMessage());
      case FieldType::u32Array:
        return writeNumbers(field);
      case FieldType::addr6Array:
        return writeElements(field.asAddr6s(), [this](const Addr6& value) { endLine(addressText(value)); });
      case FieldType::messageArray:
        return writeElements(field.asMessages(), [this](const message& value) { writeNested(value); });
      case FieldType::rawArray:
        return writeElements(field.asRaws(), [this](const auto& value) { writeBytes(value); });
      case FieldType::u64:
      case FieldType::string:
      case FieldType::booleanArray:
      case FieldType::u64Array:
      case FieldType::stringArray:
        return writeAsText(field);
    }
  }

  void endLine(std::string_view value) { out_.append(" ").append(value).append("\n"); }

  void writeAsText(const Field& field) {
    out_ += ' ';
    appendValue(out_, field);
    out_ += '\n';
  }

  void writeNumber(const Field& field) {
    if (!is(field, field::command) && !is(field, field::errorCode)) return writeAsText(field);
    out_ += " 0x";
    appendNumber(out_, field.asU32(), 16);
    const std::string_view name = is(field, field::command) ? commandName(field.asU32()) : "";
    if (!name.empty()) out_.append(" ").append(name);
    out_ += '\n';
  }

  // Paths as they are written on the command line.
  void writeNumbers(const Field& field) {
    if (!is(field, field::destination) && !is(field, field::sender)) return writeAsText(field);
    char separator = ' ';
    for (const std::uint32_t element : field.asU32s()) {
      out_ += separator;
      appendNumber(out_, element);
      separator = '/';
    }
    out_ += '\n';
  }

  void writeBytes(Bytes bytes) {
    if (bytes.size() <= bytesPerLine) return endLine(bytes.empty() ? "[]" : hexdump(bytes));
    out_ += ' ';
    appendNumber(out_, bytes.size());
    out_ += " bytes\n";
    for (; !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), bytesPerLine))) {
      out_.append(indent_ + indentStep, ' ');
      out_.append(hexdump(bytes.first(std::min(bytes.size(), bytesPerLine)))).append("\n");
    }
  }

  void writeNested(const message& msg) {
    if (msg.empty()) return endLine("{}");
    out_ += '\n';
    TreeWriter(out_, indent_ + indentStep, below_).write(msg);
  }

  // Each element of a list behind its number, in lines of its own.
  template <typename Elements, typename WriteOne>
  void writeElements(const Elements& elements, WriteOne writeOne) {
    if (elements.empty()) return endLine("[]");
    out_ += '\n';
    indent_ += indentStep;
    std::size_t index = 0;
    for (const auto& element : elements) {
      out_.append(indent_, ' ').append("[");
      appendNumber(out_, index++);
      out_ += "]:";
      writeOne(element);
    }
    indent_ -= indentStep;
  }

  std::string& out_;
  std::size_t indent_;
  const FieldNames* names_;
  const FieldNames* below_ = nullptr;  // of the field that is being written
};

}  // namespace

const FieldNames& FieldNames::of(const message& msg) const {
  const std::uint32_t object = msg.get(field::objectNumber).value_or(0);
  return object < byObject.size() && byObject[object] != nullptr ? *byObject[object] : *this;
}

const FieldName* FieldNames::find(std::uint32_t key) const {
  const auto found = std::ranges::find(fields, key, &FieldName::key);
  return found == fields.end() ? nullptr : &*found;
}

std::string_view fieldName(std::uint32_t key, const FieldNames* names) {
  const FieldName* const own = names == nullptr ? nullptr : names->find(key);
  if (own != nullptr) return own->name;
  const FieldName* const header = FieldNames{headerNames}.find(key);
  return header == nullptr ? std::string_view() : header->name;
}

std::string writeTree(const message& msg, std::size_t indent, const FieldNames* names) {
  std::string out;
  TreeWriter(out, indent, names).write(msg);
  return out;
}

std::optional<std::uint32_t> commandNumber(std::string_view name) {
  for (const CommandName& entry : commandNames) {
    if (entry.name == name) return entry.number;
  }
  return std::nullopt;
}

std::string_view commandName(std::uint32_t number) {
  for (const CommandName& entry : commandNames) {
    if (entry.number == number) return entry.name;
  }
  return {};
}

}  // namespace tn
