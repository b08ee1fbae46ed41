// zbiap keygen --out DIR [--bits N]: a new RSA key pair for signing catalogue answers. Writes
// DIR/answer-signing-key.pem (the private key, unencrypted PKCS #8 PEM, mode 0600) and
// DIR/answer-signing-key.pub (the base64 PKCS #1 public key, the text a fetcher's signature key
// takes), and prints the public key. Never writes over an existing file: when either exists,
// nothing is written. Exit 0 on success, 1 when the files cannot be written, 2 on bad usage.
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "commands.h"
#include "options.h"
#include "zbiap/devserver/answer_signing_key.h"

namespace zbiap::cli {
namespace {

namespace fs = std::filesystem;

constexpr char kUsage[] = "usage: zbiap keygen --out DIR [--bits N]\n";
constexpr char kPrivateName[] = "answer-signing-key.pem";
constexpr char kPublicName[] = "answer-signing-key.pub";

// Creates `path`, which must not exist, with `mode`, and writes `bytes`; on failure removes
// what it created and returns the reason.
std::string writeNewFile(const fs::path& path, const std::string& bytes, fs::perms mode) {
  // "x": fails when the file exists, also when another process made it a moment ago.
  FILE* file = std::fopen(path.c_str(), "wx");
  if (file == nullptr) return path.string() + ": " + std::strerror(errno);
  std::error_code error;
  // The mode is set before the first byte goes in, so the key is never readable by others.
  fs::permissions(path, mode, error);
  bool written = !error && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  written = std::fclose(file) == 0 && written;
  if (!written) {
    fs::remove(path, error);
    return path.string() + ": cannot be written";
  }
  return {};
}

int run(const Args& args) {
  OptionParser parser("zbiap keygen", kUsage);
  std::string out, bitsText;
  parser.value("--out", &out);
  parser.value("--bits", &bitsText);
  parser.require("--out");
  if (!parser.parse(args, nullptr, 0, 0)) return parser.exitCode();
  int bits = AnswerSigningKey::kDefaultBits;
  if (!bitsText.empty()) {
    auto [end, error] = std::from_chars(bitsText.data(), bitsText.data() + bitsText.size(), bits);
    if (error != std::errc() || end != bitsText.data() + bitsText.size() ||
        bits < AnswerSigningKey::kMinimumBits || bits > AnswerSigningKey::kMaximumBits) {
      return parser.fail("--bits wants a number from 2048 to 8192, not '" + bitsText + "'");
    }
  }

  const fs::path dir(out);
  const fs::path privatePath = dir / kPrivateName, publicPath = dir / kPublicName;
  std::error_code error;
  for (const fs::path& path : {privatePath, publicPath}) {
    if (fs::exists(fs::symlink_status(path, error))) {
      std::fprintf(stderr, "zbiap keygen: %s exists; a key is never written over\n", path.c_str());
      return 1;
    }
  }
  fs::create_directories(dir, error);
  if (error) {
    std::fprintf(stderr, "zbiap keygen: %s: %s\n", dir.c_str(), error.message().c_str());
    return 1;
  }
  auto key = AnswerSigningKey::generate(bits);
  const std::string pem = key ? key->privateKeyPEM() : std::string();
  if (pem.empty()) {
    std::fprintf(stderr, "zbiap keygen: OpenSSL could not make a %d-bit RSA key\n", bits);
    return 1;
  }
  std::string failure =
      writeNewFile(privatePath, pem, fs::perms::owner_read | fs::perms::owner_write);
  if (failure.empty()) {
    failure = writeNewFile(publicPath, key->publicKeyBase64() + "\n",
                           fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                               fs::perms::others_read);
    if (!failure.empty()) fs::remove(privatePath, error);
  }
  if (!failure.empty()) {
    std::fprintf(stderr, "zbiap keygen: %s\n", failure.c_str());
    return 1;
  }
  std::printf("%s\n", key->publicKeyBase64().c_str());
  std::fprintf(stderr,
               "zbiap keygen: %d-bit key pair written:\n"
               "  private key (keep secret): %s\n"
               "  public key (the app's signature key, printed above): %s\n",
               bits, privatePath.c_str(), publicPath.c_str());
  return 0;
}

}  // namespace

ZBIAP_REGISTER_COMMAND(keygen, "keygen", "make an RSA key pair that signs catalogue answers", run);

}  // namespace zbiap::cli
