// zbiap asn1 FILE|-: parses ASN.1 encodings with the library's parser and prints the tree of
// values it gives. Input that does not parse exits 1.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "input.h"
#include "options.h"
#include "zbiap/receipt/asn1_parser.h"

namespace zbiap::cli {
namespace {

int runASN1(const Args& args) {
  OptionParser options("zbiap asn1", "usage: zbiap asn1 FILE|-\n");
  std::vector<std::string> files;
  if (!options.parse(args, &files, 1, 1)) return options.exitCode();
  const std::string& file = files[0];
  std::optional<std::string> input = readInput("zbiap asn1", file);
  if (!input) return 1;
  Data data(input->begin(), input->end());
  auto tree = ZBIAPASN1Parser::parseASN1Data(std::move(data));
  if (tree == nullptr) {
    std::fprintf(stderr, "zbiap asn1: the input is not ASN.1 the parser accepts\n");
    return 1;
  }
  std::printf("%s\n", tree->root().description().c_str());
  return 0;
}

}  // namespace

ZBIAP_REGISTER_COMMAND(asn1, "asn1", "print the ASN.1 tree of a file (FILE|-)", runASN1);

}  // namespace zbiap::cli
