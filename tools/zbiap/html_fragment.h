// The catalogue's texts as HTML: a store header or a product text may hold markup, which a
// preview must show safely and a terminal as plain text. Both read the text with an HTML5 parser
// (gumbo, as a browser would parse it inside a <div>) and write it out again; no pattern is ever
// matched against the markup itself.
//
// What passes: the elements of kSafeElements with no attributes but title, lang and dir, and
// links (a) whose href is an http, https or mailto URL. Nothing that runs a script, loads
// anything, or styles the page. Any other element, and a safe one with any other attribute,
// shows as text: its tags exactly as written, then its content by the same rules. Comments are
// dropped. A text of more than a thousand tags shows as text whole, unparsed, so that no input
// keeps the parser busy for long. Plain functions of their input; any thread.
#ifndef ZBIAP_TOOLS_HTML_FRAGMENT_H_
#define ZBIAP_TOOLS_HTML_FRAGMENT_H_

#include <string>
#include <string_view>

namespace zbiap::cli {

// `text` with & < > " ' escaped, for HTML text and quoted attribute values.
std::string escapeHTML(std::string_view text);

// The fragment rewritten as HTML that holds only the safe subset; any input is safe to give.
std::string sanitizedHTML(std::string_view fragment);

// The fragment as a terminal shows it: the text of the safe subset with white space collapsed,
// one line per block (paragraph, heading, list item, line break), no blank lines, no control
// characters; what is not safe shows as its tags' text, as sanitizedHTML() shows it.
std::string htmlToText(std::string_view fragment);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_HTML_FRAGMENT_H_
