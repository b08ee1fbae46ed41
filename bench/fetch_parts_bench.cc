// Where a loopback fetch of the 1,100-product catalogue spends what processResponse does not:
// each step of the answer's way measured alone on the same bytes. Per answer the client inflates
// the answer (gzip, zlib's default level) and checks its signature (SHA-256, a 2,048-bit RSA key)
// with the fetcher's own verifier. The development server compresses and signs each catalogue
// once; the two server steps measure what each answer cost it when it did both per answer.
#include <benchmark/benchmark.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <zlib.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/catalog_fixture.h"
#include "catalog/rsa_verifier.h"

namespace zbiap {
namespace {

const std::string& catalogue() {
  static const std::string text = bench::makeCatalogJSON(1100);
  return text;
}

// windowBits 31: a gzip stream.
std::string gzip(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

// Inflates into 16 KB pieces appended to `out`, as a client receiving the answer does.
void gunzip(const std::string& packed, std::vector<uint8_t>* out) {
  z_stream stream{};
  inflateInit2(&stream, 31);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  uint8_t piece[16384];
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = piece;
    stream.avail_out = sizeof(piece);
    status = inflate(&stream, Z_NO_FLUSH);
    out->insert(out->end(), piece, piece + (sizeof(piece) - stream.avail_out));
  }
  inflateEnd(&stream);
}

EVP_PKEY* key() {
  static EVP_PKEY* made = EVP_RSA_gen(2048);
  return made;
}

std::vector<uint8_t> sign(const std::string& text) {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  size_t length = 0;
  std::vector<uint8_t> signature;
  auto bytes = reinterpret_cast<const uint8_t*>(text.data());
  if (EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key()) == 1 &&
      EVP_DigestSign(context, nullptr, &length, bytes, text.size()) == 1) {
    signature.resize(length);
    EVP_DigestSign(context, signature.data(), &length, bytes, text.size());
  }
  EVP_MD_CTX_free(context);
  return signature;
}

// The client's own check: the fetcher's RSAPublicKey over the answer and its signature.
std::shared_ptr<const RSAPublicKey> publicKey() {
  unsigned char* der = nullptr;
  const int length = i2d_PublicKey(key(), &der);
  auto made = RSAPublicKey::fromPKCS1DER(std::span<const uint8_t>(der, length > 0 ? length : 0));
  OPENSSL_free(der);
  return made;
}

void BM_FetchPartServerGzip(benchmark::State& state) {
  size_t packed = 0;
  for (auto _ : state) packed = gzip(catalogue()).size();
  state.counters["packed_bytes"] = static_cast<double>(packed);
}
BENCHMARK(BM_FetchPartServerGzip)->Unit(benchmark::kMillisecond);

void BM_FetchPartServerSign(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(sign(catalogue()));
}
BENCHMARK(BM_FetchPartServerSign)->Unit(benchmark::kMillisecond);

void BM_FetchPartClientInflate(benchmark::State& state) {
  const std::string packed = gzip(catalogue());
  for (auto _ : state) {
    std::vector<uint8_t> body;
    gunzip(packed, &body);
    benchmark::DoNotOptimize(body.data());
  }
}
BENCHMARK(BM_FetchPartClientInflate)->Unit(benchmark::kMillisecond);

void BM_FetchPartClientVerify(benchmark::State& state) {
  const std::vector<uint8_t> signature = sign(catalogue());
  const std::shared_ptr<const RSAPublicKey> verifier = publicKey();
  const auto message =
      std::span(reinterpret_cast<const uint8_t*>(catalogue().data()), catalogue().size());
  for (auto _ : state) {
    if (!verifier || !verifier->verifySHA256(message, std::span(signature))) {
      state.SkipWithError("the signature does not verify");
      break;
    }
  }
}
BENCHMARK(BM_FetchPartClientVerify)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zbiap
