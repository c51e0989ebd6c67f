#include "platform/xml/parser.h"

#include <utility>

#include "platform/xml/names.h"

// The document and its elements; parser_text.cc has what stands inside and between tags.

namespace xml {
namespace {

std::string endTagOf(const Node& node) {
  std::string text = "end tag </";
  text += node.name();
  text += '>';
  return text;
}

std::string_view faultText(Fault fault) {
  switch (fault) {
    case Fault::none:
    case Fault::end:
      break;
    case Fault::notUtf8:
      return "valid UTF-8";
    case Fault::notXml:
      return "a character that XML allows";
    case Fault::notAscii:
      return "a US-ASCII character";
  }
  return {};
}

}  // namespace

Parser::Parser(std::string_view file, std::string_view bytes) : file_(file), bytes_(bytes), input_(bytes) {}

std::optional<Node> Parser::parse() {
  if (bytes_.size() > limit::documentBytes) {
    error_ = {std::string(file_), 0, 0, atMost(limit::documentBytes, " bytes")};
    return std::nullopt;
  }
  if (!document()) root_.reset();
  return std::move(root_);
}

bool Parser::document() {
  constexpr std::string_view declarationStart = "<?xml";
  if (input_.lookingAt(declarationStart)) {
    const Character after = decodeUtf8(input_.rest().substr(declarationStart.size()));
    // A longer name ("<?xml-stylesheet") begins a processing instruction.
    if ((after.length == 0 || !isNameCharacter(after.code)) && !declaration()) return false;
  }
  if (!misc()) return false;
  if (input_.lookingAt("<!DOCTYPE")) return fail("the root element, not a document type declaration");
  if (!input_.lookingAt("<")) return fail("the root element");
  if (!startTag()) return false;
  while (!open_.empty()) {
    if (!contentItem()) return false;
  }
  if (!misc()) return false;
  return input_.atEnd() || fail("the end of the document");
}

bool Parser::misc() {
  while (true) {
    input_.acceptSpace();
    if (input_.lookingAt("<!--")) {
      if (!comment()) return false;
    } else if (input_.lookingAt("<?")) {
      if (!processingInstruction()) return false;
    } else {
      return true;
    }
  }
}

bool Parser::contentItem() {
  if (input_.atEnd()) return fail(endTagOf(open_.back()));
  return input_.lookingAt("<") ? markup() : characterData();
}

bool Parser::markup() {
  if (input_.lookingAt("</")) return endTag();
  if (input_.lookingAt("<!--")) return comment();
  if (input_.lookingAt("<![CDATA[")) return cdataSection();
  if (input_.lookingAt("<!")) return fail("a comment or a CDATA section");
  if (input_.lookingAt("<?")) return processingInstruction();
  return startTag();
}

bool Parser::startTag() {
  const Position start = input_.position();
  if (open_.size() == limit::nesting) return failAt(start, atMost(limit::nesting, " nested elements"));
  if (elements_ == limit::elements) return failAt(start, atMost(limit::elements, " elements"));
  ++elements_;
  input_.skip(1);
  Node& node = open_.emplace_back();
  node.position_ = start;
  if (!name(node.name_)) return false;
  node.id_ = idOf(node.name_);
  while (true) {
    const bool spaced = input_.acceptSpace();
    if (input_.accept(">")) return true;
    if (input_.accept("/>")) break;
    if (!spaced) return fail(R"(white space, "/>" or ">")");
    if (!attribute(node.attributes_)) return false;
  }
  closeElement();
  return true;
}

bool Parser::attribute(AttributeList& list) {
  const Position start = input_.position();
  const Character first = input_.peek();
  if (!isNameStart(first.code)) return fail(R"(an attribute, "/>" or ">")");
  if (list.size() == limit::attributes) return failAt(start, atMost(limit::attributes, " attributes"));
  Attribute added;
  added.position_ = start;
  if (!name(added.name_)) return false;
  if (list.find(std::string_view(added.name_)) != nullptr) {
    return failAt(start, "each attribute once, not another \"" + added.name_ + '"');
  }
  added.id_ = idOf(added.name_);
  if (!equalsSign() || !attributeValue(added.text_)) return false;
  list.attributes_.push_back(std::move(added));
  return true;
}

bool Parser::endTag() {
  const Position start = input_.position();
  input_.skip(2);
  std::string ended;
  if (!name(ended)) return false;
  if (ended != open_.back().name()) return failAt(start, endTagOf(open_.back()));
  input_.acceptSpace();
  if (!input_.accept(">")) return fail(R"(">")");
  closeElement();
  return true;
}

void Parser::closeElement() {
  Node ended = std::move(open_.back());
  open_.pop_back();
  if (open_.empty()) {
    root_ = std::move(ended);
  } else {
    open_.back().children_.push_back(std::move(ended));
  }
}

bool Parser::name(std::string& name) {
  const Position start = input_.position();
  const Character first = input_.peek();
  if (!isNameStart(first.code)) return fail("a name");
  for (Character next = first; next.length != 0 && isNameCharacter(next.code); next = input_.peek()) {
    if (name.size() + next.length > limit::nameBytes) {
      return failAt(start, "a name of " + atMost(limit::nameBytes, " bytes"));
    }
    name += input_.rest().substr(0, next.length);
    input_.take(next);
  }
  return true;
}

std::string Parser::atMost(std::size_t number, std::string_view what) {
  std::string text = "at most ";
  text += std::to_string(number);
  text += what;
  return text;
}

bool Parser::fail(std::string expected) {
  const std::string_view fault = faultText(input_.fault());
  return failAt(input_.position(), fault.empty() ? std::move(expected) : std::string(fault));
}

bool Parser::failAt(const Position& at, std::string expected) {
  error_ = {std::string(file_), at.line, at.column, std::move(expected)};
  return false;
}

}  // namespace xml
