#include "Platform/Texts/HtmlText.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <string>
#include <vector>

#include <libxml/HTMLparser.h>
#include <libxml/tree.h>

#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

using Attributes = AttributedString::Attributes;

constexpr std::array<std::string_view, 31> kBlocks{
    "address", "article", "aside",    "blockquote", "body", "center", "dd",  "div",
    "dl",      "dt",      "fieldset", "footer",     "form", "h1",     "h2",  "h3",
    "h4",      "h5",      "h6",       "header",     "hr",   "li",     "nav", "ol",
    "p",       "pre",     "section",  "table",      "tr",   "ul",     "main"};
constexpr std::array<std::string_view, 5> kUnseen{"script", "style", "title", "template", "head"};

struct DocumentDeleter {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
struct XmlTextDeleter {
  void operator()(xmlChar* text) const { xmlFree(text); }
};

std::string_view nameOf(const xmlNode* node) {
  return node->name ? reinterpret_cast<const char*>(node->name) : "";
}

template <std::size_t Size>
bool isAmong(const std::array<std::string_view, Size>& names, const xmlNode* node) {
  return node->type == XML_ELEMENT_NODE && std::ranges::find(names, nameOf(node)) != names.end();
}

bool isWhiteSpace(char c) {
  return std::string_view(" \t\r\n\f").find(c) != std::string_view::npos;
}

int headerLevel(std::string_view name) {
  return name.size() == 2 && name[0] == 'h' && name[1] >= '1' && name[1] <= '6' ? name[1] - '0' : 0;
}

// The target of a link without white space around it; empty if there is none.
std::string target(xmlNode* node) {
  const std::unique_ptr<xmlChar, XmlTextDeleter> value(
      xmlGetProp(node, reinterpret_cast<const xmlChar*>("href")));
  std::string_view link = value ? reinterpret_cast<const char*>(value.get()) : "";
  while (!link.empty() && isWhiteSpace(link.front())) link.remove_prefix(1);
  while (!link.empty() && isWhiteSpace(link.back())) link.remove_suffix(1);
  return std::string(link);
}

// The attributes inside an element.
Attributes within(xmlNode* element, Attributes attributes) {
  const std::string_view name = nameOf(element);
  if (const int level = headerLevel(name)) {
    attributes.font->bold = true;
    attributes.paragraphStyle->headerLevel = level;
  } else if (name == "b" || name == "strong") {
    attributes.font->bold = true;
  } else if (name == "i" || name == "em") {
    attributes.font->italic = true;
  } else if (name == "a") {
    if (std::string link = target(element); !link.empty()) attributes.link = std::move(link);
  }
  return attributes;
}

// Collects the text as a page shows it.
class Page {
 public:
  void text(std::string_view text, const Attributes& attributes) {
    for (std::size_t at = 0; at < text.size();) {
      if (isWhiteSpace(text[at])) {
        // A space is visible only between two texts, and has the attributes of its place.
        if (pending_ == 0) {
          pending_ = ' ';
          pendingAttributes_ = attributes;
        }
        ++at;
        continue;
      }
      const std::size_t start = at;
      while (at < text.size() && !isWhiteSpace(text[at])) ++at;
      putPending();
      string_.append(text.substr(start, at - start), attributes);
      atLineStart_ = false;
    }
  }

  void lineBreak(const Attributes& attributes) {
    pending_ = 0;
    string_.append("\n", attributes);
    atLineStart_ = true;
  }

  // A line break between blocks, visible once there is text on both sides.
  void blockBorder(const Attributes& attributes) {
    pending_ = '\n';
    pendingAttributes_ = attributes;
  }

  AttributedString take() { return std::move(string_); }

 private:
  void putPending() {
    if (pending_ != 0 && !atLineStart_) {
      string_.append(std::string_view(&pending_, 1), pendingAttributes_);
    }
    pending_ = 0;
  }

  AttributedString string_;
  char pending_ = 0;
  Attributes pendingAttributes_;
  bool atLineStart_ = true;
};

// Walks the tree without recursion, because HTML may nest to any depth.
class Walk {
 public:
  AttributedString page(xmlNode* root) {
    attributes_.push_back(
        {.font = AttributedString::Font{}, .paragraphStyle = AttributedString::ParagraphStyle{}});
    for (xmlNode* node = root; node;) {
      if (enter(node)) {
        node = node->children;
        continue;
      }
      while (node && !node->next) {
        node = node == root ? nullptr : node->parent;
        if (node) leave(node);
      }
      if (node) node = node->next;
    }
    return page_.take();
  }

 private:
  // Returns whether to visit the node's children.
  bool enter(xmlNode* node) {
    if (node->type == XML_TEXT_NODE && node->content) {
      page_.text(reinterpret_cast<const char*>(node->content), attributes_.back());
    }
    if (node->type != XML_ELEMENT_NODE || isAmong(kUnseen, node)) return false;
    if (nameOf(node) == "br") page_.lineBreak(attributes_.back());
    if (isAmong(kBlocks, node)) page_.blockBorder(attributes_.back());
    if (!node->children) return false;
    attributes_.push_back(within(node, attributes_.back()));
    return true;
  }

  void leave(xmlNode* element) {
    attributes_.pop_back();
    if (isAmong(kBlocks, element)) page_.blockBorder(attributes_.back());
  }

  Page page_;
  std::vector<Attributes> attributes_;  // of the enclosing elements
};

}  // namespace

AttributedString attributedStringFromHtml(std::string_view html) {
  if (html.size() > kMaxHtmlBytes || html.find('\0') != html.npos || findIllFormedUtf8(html)) {
    return {};
  }
  const std::u16string units = utf16FromUtf8(html);
  if (units.empty()) return {};
  constexpr bool kIsLittle = std::endian::native == std::endian::little;
  const std::unique_ptr<xmlDoc, DocumentDeleter> document(htmlReadMemory(
      reinterpret_cast<const char*>(units.data()), static_cast<int>(units.size() * 2), nullptr,
      kIsLittle ? "UTF-16LE" : "UTF-16BE",
      HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING | HTML_PARSE_NONET |
          HTML_PARSE_NODEFDTD | HTML_PARSE_IGNORE_ENC));
  xmlNode* const root = document ? xmlDocGetRootElement(document.get()) : nullptr;
  return root ? Walk().page(root) : AttributedString();
}

}  // namespace platform
