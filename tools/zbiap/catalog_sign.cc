// zbiap catalog sign --key PRIVATE.pem [--out DIR] [--nginx [--base-path PATH] [--listen ADDR]]
//                    FILE
//
// Reads FILE as an app reads an answer and refuses, with the reasons, one that an app would
// reject as a whole; a product an app would drop gets a warning. It reads as an app whose
// language has no text of its own in the catalogue, so that the texts checked are the German
// ones every app falls back to: an answer signed without warnings reads in every language.
// Writes DIR/answer.json (FILE's bytes, unchanged), DIR/answer.signature (the value of the
// signature header) and with --nginx DIR/nginx-site.conf; prints the signature. Exit 0 when
// signed, 1 when refused or the files cannot be written, 2 on bad usage.
#include "catalog_sign.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "catalog_report.h"
#include "input.h"
#include "options.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/devserver/answer_signing_key.h"
#include "zbiap/foundation/json.h"

namespace zbiap::cli {
namespace {

namespace fs = std::filesystem;

constexpr char kUsage[] =
    "usage: zbiap catalog sign --key PRIVATE.pem [--out DIR] [--nginx [--base-path PATH]\n"
    "                          [--listen ADDR]] FILE\n";
// A language code no catalogue has texts for: the reading falls back to German throughout.
constexpr char kNoLanguage[] = "zz";

// Writes each file through a temporary file and a rename: a server reading one sees the old
// answer or the new one, never half of one, and when a write fails no file has changed yet.
// The reason when it fails.
std::string replaceFiles(const std::vector<std::pair<fs::path, std::string>>& files) {
  auto temporary = [](fs::path path) { return path += ".new"; };
  std::error_code error;
  std::string failure;
  for (const auto& [path, bytes] : files) {
    std::ofstream out(temporary(path), std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out.flush()) {
      failure = temporary(path).string() + ": cannot be written";
      break;
    }
  }
  for (const auto& [path, bytes] : files) {
    if (failure.empty()) fs::rename(temporary(path), path, error);
    if (error && failure.empty()) failure = path.string() + ": cannot be written";
    if (!failure.empty()) fs::remove(temporary(path), error);
  }
  return failure;
}

// Prints the reading's objections; whether the answer may be signed.
bool reviewed(const std::string& bytes) {
  const Value report = AnswerReading(bytes).report().toValue();
  const Value answer = parseJSON(bytes).value_or(Value());
  const bool refused = !report["error"].isNull();
  for (const Value& product : *report["products"].asArray()) {
    if (product["accepted"] == Value(true)) continue;
    const std::string name = productElementName(answer, product["index"]);
    std::fprintf(stderr, "zbiap catalog sign: %s: %s is rejected by apps\n",
                 refused ? "error" : "warning", name.c_str());
    for (const Value& message : *product["messages"].asArray()) {
      std::fprintf(stderr, "  ! %s\n", message.isString() ? message.asString()->c_str() : "");
    }
  }
  if (refused) {
    std::fprintf(stderr, "zbiap catalog sign: not signed: apps reject this answer: %s\n",
                 report["error"].asString()->c_str());
  }
  return !refused;
}

}  // namespace

int catalogSign(const Args& args) {
  OptionParser parser("zbiap catalog sign", kUsage);
  std::string keyFile, out = ".", basePath, listen = "80";
  bool nginx = false;
  parser.value("--key", &keyFile);
  parser.value("--out", &out);
  parser.flag("--nginx", &nginx);
  parser.value("--base-path", &basePath);
  parser.value("--listen", &listen);
  parser.require("--key");
  std::vector<std::string> files;
  if (!parser.parse(args, &files, 1, 1)) return parser.exitCode();
  if (!nginx && (!basePath.empty() || listen != "80")) {
    return parser.fail("--base-path and --listen shape the nginx site: they need --nginx");
  }
  const std::optional<std::string> bytes = readInput("zbiap catalog sign", files[0]);
  if (!bytes) return 1;
  const std::optional<std::string> pem = readInput("zbiap catalog sign", keyFile);
  if (!pem) return 1;
  std::string error;
  const auto key = AnswerSigningKey::fromPEM(*pem, &error);
  if (key == nullptr) {
    std::fprintf(stderr, "zbiap catalog sign: %s: %s\n", keyFile.c_str(), error.c_str());
    return 1;
  }

  setenv("ZBIAP_OVERRIDE_LOCALE", kNoLanguage, 1);
  if (!reviewed(*bytes)) return 1;

  const std::string signature = key->sign(*bytes);
  // The answer must pass the very check an app makes, with the key an app is given.
  std::string_view data(*bytes);
  if (!ZBIAPProductInfoV1Fetcher::validateSignature(
          signature,
          ZBIAPProductInfoV1Fetcher::private_getPublicKeyRef(key->publicKeyBase64()).get(),
          &data)) {
    std::fprintf(stderr, "zbiap catalog sign: the signature made does not verify\n");
    return 1;
  }

  std::error_code fsError;
  const fs::path dir = fs::absolute(out, fsError);
  std::optional<std::string> site;
  if (nginx) {
    site = nginxSiteFile(
        {listen, basePath, (dir / "answer.json").lexically_normal().string(), signature}, &error);
    if (!site) return parser.fail(error);
  }
  if (!fsError) fs::create_directories(dir, fsError);
  if (fsError) {
    std::fprintf(stderr, "zbiap catalog sign: %s: %s\n", out.c_str(), fsError.message().c_str());
    return 1;
  }
  std::vector<std::pair<fs::path, std::string>> written{{dir / "answer.json", *bytes},
                                                        {dir / "answer.signature", signature}};
  if (site) written.emplace_back(dir / "nginx-site.conf", *site);
  if (std::string failure = replaceFiles(written); !failure.empty()) {
    std::fprintf(stderr, "zbiap catalog sign: %s\n", failure.c_str());
    return 1;
  }
  std::printf("%s\n", signature.c_str());
  std::fprintf(stderr, "zbiap catalog sign: signed with the key %s...; wrote %s%s%s\n",
               key->publicKeyBase64().substr(0, 24).c_str(), (dir / "answer.json").c_str(),
               ", answer.signature", site ? ", nginx-site.conf" : "");
  return 0;
}

}  // namespace zbiap::cli
