#include "zbiap/platform/preferred_languages.h"

#include <algorithm>

namespace zbiap {

namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool allOf(std::string_view s, bool (*pred)(char)) { return std::all_of(s.begin(), s.end(), pred); }

}  // namespace

std::optional<std::string> languageTagFromLocaleName(std::string_view locale) {
  // language[_territory][.codeset][@modifier]
  locale = locale.substr(0, locale.find_first_of(".@"));
  if (locale.empty() || locale == "C" || locale == "POSIX") return std::nullopt;
  std::string tag;
  size_t part = 0;
  while (!locale.empty()) {
    size_t end = locale.find_first_of("_-");
    std::string_view piece = locale.substr(0, end);
    locale = end == std::string_view::npos ? std::string_view() : locale.substr(end + 1);
    if (end != std::string_view::npos && locale.empty()) return std::nullopt;  // "de_"
    std::string out;
    if (part == 0) {
      if (piece.size() < 2 || piece.size() > 8 || !allOf(piece, isAlpha)) return std::nullopt;
      for (char c : piece) out += lower(c);
    } else if (piece.size() == 4 && allOf(piece, isAlpha)) {  // Script: "Latn".
      out += upper(piece[0]);
      for (char c : piece.substr(1)) out += lower(c);
    } else if (piece.size() == 2 && allOf(piece, isAlpha)) {  // Region: "DE".
      for (char c : piece) out += upper(c);
    } else if (piece.size() == 3 && allOf(piece, isDigit)) {  // Region: "419".
      out = piece;
    } else {
      return std::nullopt;
    }
    if (part > 0) tag += '-';
    tag += out;
    ++part;
  }
  return tag;
}

std::vector<std::string> preferredLanguagesFromLocale(const EnvironmentLookup& getenv) {
  std::vector<std::string> languages;
  auto add = [&languages](std::string_view locale) {
    std::optional<std::string> tag = languageTagFromLocaleName(locale);
    if (tag && std::find(languages.begin(), languages.end(), *tag) == languages.end()) {
      languages.push_back(std::move(*tag));
    }
  };
  if (std::optional<std::string> list = getenv("LANGUAGE")) {
    std::string_view rest = *list;
    while (!rest.empty()) {
      size_t colon = rest.find(':');
      add(rest.substr(0, colon));
      rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    }
  }
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    std::optional<std::string> value = getenv(name);
    if (value && !value->empty()) {
      add(*value);
      break;
    }
  }
  if (languages.empty()) languages.push_back("en");
  return languages;
}

}  // namespace zbiap
