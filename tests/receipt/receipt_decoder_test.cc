// The direct receipt decoder against the tree decoder: wherever the direct one answers, both
// must agree on every record and field, and it must answer for the receipts that matter.
#include "receipt/receipt_decoder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "testing/testdata.h"
#include "tests/receipt/receipt_contents.h"

namespace {

using zbiap::Data;
using zbiap::internal::DecodedReceipt;
using zbiap::testing::contents;

// Decodes `data` both ways; returns whether the direct decoder answered.
bool compare(const Data& data) {
  DecodedReceipt direct, tree;
  const bool answered = zbiap::internal::decodeReceiptDirect(data, &direct);
  const bool accepted = zbiap::internal::decodeReceiptWithTree(data, &tree);
  if (answered) {
    EXPECT_TRUE(accepted) << "the direct decoder accepted a receipt the tree decoder rejects";
    EXPECT_TRUE(accepted && zbiap::internal::sameContents(direct, tree));
  }
  return answered;
}

using ReceiptDecoderTest = zbiap::testing::ReceiptWriterTest;

TEST_F(ReceiptDecoderTest, AnswersForWriterAndAppStoreReceipts) {
  for (int count : {0, 1, 40}) {
    for (int indefinite : {0, 3}) {
      SCOPED_TRACE(std::to_string(count) + " purchases, indefinite " + std::to_string(indefinite));
      auto data = writer_->write(contents(count), {.indefiniteLayers = indefinite});
      ASSERT_TRUE(data);
      EXPECT_TRUE(compare(*data));
    }
  }
  int appStore = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(zbiap::testing::testdataDir() / "receipts")) {
    const std::string name = entry.path().filename().string();
    if (entry.path().extension() != ".der" && entry.path().extension() != ".bin") continue;
    SCOPED_TRACE(name);
    std::string bytes = zbiap::testing::readFile(entry.path());
    const bool answered = compare(Data(bytes.begin(), bytes.end()));
    // Every App Store receipt is in the plain form; the others go to the tree decoder.
    if (name.starts_with("production-") || name.starts_with("sandbox-")) {
      EXPECT_TRUE(answered);
      ++appStore;
    }
  }
  EXPECT_GE(appStore, 8);
}

// Every single-octet change of a small receipt: wherever the direct decoder still answers,
// the tree decoder agrees. This walks the direct decoder through lengths, identifiers,
// attribute types, values and dates gone wrong.
TEST_F(ReceiptDecoderTest, AgreesOnEveryOneOctetChange) {
  zbiap::ReceiptContents c = contents(3);
  c.purchases[1].quantity = 300;  // a two-octet INTEGER
  auto original = writer_->write(c, {});
  ASSERT_TRUE(original);
  ASSERT_TRUE(compare(*original));
  int answered = 0;
  int declined = 0;
  for (size_t i = 0; i < original->size(); ++i) {
    for (uint8_t change : {0x01, 0x02, 0x10, 0x20, 0x80, 0xFF}) {
      if (HasFailure()) return;  // one report, not thousands
      Data data = *original;
      data[i] ^= change;
      SCOPED_TRACE("octet " + std::to_string(i) + " ^ " + std::to_string(change));
      (compare(data) ? answered : declined)++;
    }
  }
  // Most changes hit the signature and certificates and change nothing the decoders read.
  EXPECT_GT(answered, 0);
  EXPECT_GT(declined, 0);
}

TEST_F(ReceiptDecoderTest, DictionaryIsMadeOnFirstUseFromTheKeptBytes) {
  auto data = writer_->write(contents(5), {});
  ASSERT_TRUE(data);
  DecodedReceipt direct, tree;
  ASSERT_TRUE(zbiap::internal::decodeReceiptDirect(*data, &direct));
  ASSERT_TRUE(zbiap::internal::decodeReceiptWithTree(*data, &tree));
  direct.source = std::make_shared<const Data>(*data);
  EXPECT_EQ(direct.dictionary(), tree.dictionary());
  EXPECT_EQ(direct.dictionary()[ZBIAPReceiptKeyIAPs].size(), 5u);
}

}  // namespace
