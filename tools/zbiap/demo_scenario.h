// The scenario of `zbiap demo`: the whole system in a development environment, shown step by
// step as an app would live it: start-up to ready, the country, the store screen, a purchase and
// the receipt-driven update, a restore that brings the account's purchases, and a summary.
#ifndef ZBIAP_TOOLS_DEMO_SCENARIO_H_
#define ZBIAP_TOOLS_DEMO_SCENARIO_H_

#include <chrono>
#include <string>

#include "demo_output.h"

namespace zbiap::cli {

struct DemoOptions {
  std::string language;      // empty: the platform's
  std::string storefront;    // ISO alpha-3; empty: the StoreKit configuration's
  std::string storeKitFile;  // empty: the built-in example
  std::string catalogFile;   // empty: the built-in example
  bool step = false;         // wait for Enter between steps
  // When the command started, for the summary's time.
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

// Runs the scenario, writing to `out`; returns the exit code: 0 when every step succeeded, 1
// when one failed or timed out (with an "error" event saying which and why).
int runDemo(const DemoOptions& options, DemoOutput& out);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_DEMO_SCENARIO_H_
