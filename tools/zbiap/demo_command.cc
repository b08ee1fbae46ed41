// zbiap demo: the whole system on built-in defaults, as an app would live it. See
// demo_scenario.h for the steps and kUsage for the options and the --json events.
#include <cstdio>
#include <string>

#include "commands.h"
#include "demo_output.h"
#include "demo_scenario.h"
#include "options.h"

namespace zbiap::cli {
namespace {

constexpr char kUsage[] =
    "usage: zbiap demo [--lang CODE] [--storefront ABC] [--storekit FILE] [--catalog FILE]\n"
    "                  [--json] [--step]\n"
    "  --lang CODE       language of the catalogue's texts and of prices (\"de\", \"fr\")\n"
    "  --storefront ABC  App Store storefront, ISO 3166-1 alpha-3 (\"DEU\", \"FRA\", \"JPN\")\n"
    "  --storekit FILE   a .storekit configuration instead of the built-in example\n"
    "  --catalog FILE    a catalogue (the server's JSON answer) instead of the built-in one\n"
    "  --json            one JSON event a line: start, state, notification, country, catalog,\n"
    "                    purchase, receipt-update, restore, summary; error when a step fails\n"
    "  --step            wait for Enter between steps\n";

int runDemoCommand(const Args& args) {
  OptionParser parser("zbiap demo", kUsage);
  DemoOptions options;
  bool json = false;
  parser.value("--lang", &options.language);
  parser.value("--storefront", &options.storefront);
  parser.value("--storekit", &options.storeKitFile);
  parser.value("--catalog", &options.catalogFile);
  parser.flag("--json", &json);
  parser.flag("--step", &options.step);
  if (!parser.parse(args, nullptr, 0, 0)) return parser.exitCode();
  DemoOutput out(stdout, json, !json && DemoOutput::terminalHasTrueColor());
  return runDemo(options, out);
}

}  // namespace

ZBIAP_REGISTER_COMMAND(demo, "demo", "run the whole system on built-in examples", runDemoCommand);

}  // namespace zbiap::cli
