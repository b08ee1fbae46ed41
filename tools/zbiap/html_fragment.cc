#include "html_fragment.h"

#include <gumbo.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <vector>

namespace zbiap::cli {
namespace {

constexpr std::array kSafeElements = {
    GUMBO_TAG_A,   GUMBO_TAG_B,     GUMBO_TAG_BLOCKQUOTE, GUMBO_TAG_BR,     GUMBO_TAG_CODE,
    GUMBO_TAG_DEL, GUMBO_TAG_DIV,   GUMBO_TAG_EM,         GUMBO_TAG_H1,     GUMBO_TAG_H2,
    GUMBO_TAG_H3,  GUMBO_TAG_H4,    GUMBO_TAG_H5,         GUMBO_TAG_H6,     GUMBO_TAG_I,
    GUMBO_TAG_INS, GUMBO_TAG_LI,    GUMBO_TAG_MARK,       GUMBO_TAG_OL,     GUMBO_TAG_P,
    GUMBO_TAG_S,   GUMBO_TAG_SMALL, GUMBO_TAG_SPAN,       GUMBO_TAG_STRONG, GUMBO_TAG_SUB,
    GUMBO_TAG_SUP, GUMBO_TAG_U,     GUMBO_TAG_UL,
};
// Elements that end a line in text.
constexpr std::array kBlockElements = {
    GUMBO_TAG_BLOCKQUOTE, GUMBO_TAG_BR, GUMBO_TAG_DIV, GUMBO_TAG_H1, GUMBO_TAG_H2,
    GUMBO_TAG_H3,         GUMBO_TAG_H4, GUMBO_TAG_H5,  GUMBO_TAG_H6, GUMBO_TAG_LI,
    GUMBO_TAG_OL,         GUMBO_TAG_P,  GUMBO_TAG_UL,
};
constexpr std::array kSafeAttributes = {"title", "lang", "dir"};
// A link may lead away, but only where a click takes it; these schemes load nothing by
// themselves and run nothing.
constexpr std::array kSafeSchemes = {"https://", "http://", "mailto:"};

template <typename List, typename T>
bool contains(const List& list, const T& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool safeAttribute(GumboTag tag, const GumboAttribute& attribute) {
  const std::string_view name = attribute.name;
  if (contains(kSafeAttributes, name)) return true;
  if (tag != GUMBO_TAG_A || name != "href") return false;
  // The value as the browser would take it: gumbo has already decoded its character references.
  return std::any_of(kSafeSchemes.begin(), kSafeSchemes.end(), [&](const char* scheme) {
    return startsWithIgnoringCase(attribute.value, scheme);
  });
}

bool safeElement(const GumboNode& node) {
  if (node.type != GUMBO_NODE_ELEMENT) return false;  // a template's content is inert markup
  const GumboElement& element = node.v.element;
  if (element.tag_namespace != GUMBO_NAMESPACE_HTML || !contains(kSafeElements, element.tag)) {
    return false;
  }
  for (unsigned i = 0; i < element.attributes.length; ++i) {
    if (!safeAttribute(element.tag,
                       *static_cast<const GumboAttribute*>(element.attributes.data[i]))) {
      return false;
    }
  }
  return true;
}

// Walks a parsed fragment and writes either sanitized HTML or text.
class Writer {
 public:
  explicit Writer(bool html) : html_(html) {}

  void node(const GumboNode& node) {
    switch (node.type) {
      case GUMBO_NODE_TEXT:
      case GUMBO_NODE_CDATA:
      case GUMBO_NODE_WHITESPACE:
        text(node.v.text.text);
        break;
      case GUMBO_NODE_ELEMENT:
      case GUMBO_NODE_TEMPLATE:
        element(node);
        break;
      default:  // comments, and the document node, which a fragment does not hold
        break;
    }
  }

  void children(const GumboNode& node) {
    const GumboVector& children = node.v.element.children;
    for (unsigned i = 0; i < children.length; ++i) {
      this->node(*static_cast<const GumboNode*>(children.data[i]));
    }
  }

  // Text as it is, escaped in HTML.
  void text(std::string_view text) {
    if (html_) {
      out_ += escapeHTML(text);
      return;
    }
    // As a browser lays text out: runs of white space become one space. Control characters
    // (a terminal's escape sequences among them) are dropped.
    for (char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f') {
        if (!out_.empty() && out_.back() != ' ' && out_.back() != '\n') out_ += ' ';
      } else if (byte >= 0x20 && byte != 0x7f) {
        out_ += c;
      }
    }
  }

  std::string take() {
    if (html_) return std::move(out_);
    // One line per block, trimmed, blank ones dropped.
    std::string lines;
    size_t start = 0;
    while (start <= out_.size()) {
      size_t end = std::min(out_.find('\n', start), out_.size());
      std::string_view line(out_.data() + start, end - start);
      while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
      while (!line.empty() && line.back() == ' ') line.remove_suffix(1);
      if (!line.empty()) {
        if (!lines.empty()) lines += '\n';
        lines += line;
      }
      start = end + 1;
    }
    return lines;
  }

 private:
  void element(const GumboNode& node) {
    const GumboElement& element = node.v.element;
    if (!safeElement(node)) {
      // Shown as written, so that an author sees what did not pass.
      text(std::string_view(element.original_tag.data, element.original_tag.length));
      children(node);
      text(std::string_view(element.original_end_tag.data, element.original_end_tag.length));
      return;
    }
    const bool block = contains(kBlockElements, element.tag);
    if (!html_) {
      if (block) out_ += '\n';
      children(node);
      if (block) out_ += '\n';
      return;
    }
    const char* name = gumbo_normalized_tagname(element.tag);
    out_ += '<';
    out_ += name;
    for (unsigned i = 0; i < element.attributes.length; ++i) {
      const auto& attribute = *static_cast<const GumboAttribute*>(element.attributes.data[i]);
      out_ += ' ';
      out_ += attribute.name;
      out_ += "=\"" + escapeHTML(attribute.value) + '"';
    }
    if (element.tag == GUMBO_TAG_A) out_ += " rel=\"noopener noreferrer\"";
    out_ += '>';
    if (element.tag == GUMBO_TAG_BR) return;
    children(node);
    out_ += "</";
    out_ += name;
    out_ += '>';
  }

  const bool html_;
  std::string out_;
};

// The parser's work grows with the square of the nesting depth, and the writer recurses once per
// level; a text with more tags than any store text needs is shown as text, unparsed.
constexpr size_t kMostTags = 1000;

std::string rewrite(std::string_view fragment, bool html) {
  if (static_cast<size_t>(std::count(fragment.begin(), fragment.end(), '<')) > kMostTags) {
    if (html) return escapeHTML(fragment);
    Writer writer(false);
    writer.text(fragment);
    return writer.take();
  }
  GumboOptions options = kGumboDefaultOptions;
  options.fragment_context = GUMBO_TAG_DIV;
  options.fragment_namespace = GUMBO_NAMESPACE_HTML;
  GumboOutput* output = gumbo_parse_with_options(&options, fragment.data(), fragment.size());
  if (output == nullptr) return html ? escapeHTML(fragment) : std::string();
  Writer writer(html);
  // The fragment's nodes are the children of the <html> element the parser wraps them in.
  writer.children(*output->root);
  gumbo_destroy_output(&options, output);
  return writer.take();
}

}  // namespace

std::string escapeHTML(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      case '\0':
        out += "\xEF\xBF\xBD";
        break;  // U+FFFD, as a parser would make of it
      default:
        out += c;
    }
  }
  return out;
}

std::string sanitizedHTML(std::string_view fragment) { return rewrite(fragment, true); }

std::string htmlToText(std::string_view fragment) { return rewrite(fragment, false); }

}  // namespace zbiap::cli
