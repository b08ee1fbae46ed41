// Receipts for benchmarks: the writer's receipts of a given number of purchases (each purchase
// with the fields the App Store writes, plus two attribute types the reader skips), and the
// real 187-purchase receipt of the shared test material. Deterministic but for the signature.
#ifndef ZBIAP_BENCH_RECEIPT_FIXTURE_H_
#define ZBIAP_BENCH_RECEIPT_FIXTURE_H_

#include "zbiap/foundation/value.h"

namespace zbiap::bench {

Data makeWriterReceipt(int purchases);
// Empty when the shared test material is not there.
Data realReceipt187();

}  // namespace zbiap::bench

#endif  // ZBIAP_BENCH_RECEIPT_FIXTURE_H_
