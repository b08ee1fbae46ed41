// zbiap::testing::FakeStore: a scriptable ZBIAPStore for tests of what drives a store (the
// manager above all). Each query takes the next queued reply, else the default one; a reply comes
// at once, from a thread of its own, after a delay on the main queue's clock, or never. The
// scenario runner drives it; `trace` hears every query, answer and read of the purchases.
//
// Thread-safe. Completions are never called with the fake's own lock held. Held completions
// keep whatever they captured alive until they are answered or dropped (dropPending()).
#ifndef ZBIAP_TESTING_FAKE_STORE_H_
#define ZBIAP_TESTING_FAKE_STORE_H_

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/platform/main_queue.h"
#include "zbiap/store/store.h"

namespace zbiap::testing {

// How a scripted reply is given.
enum class Answer {
  kAtOnce,         // synchronously, inside the call
  kOnOtherThread,  // from a thread of its own, which the call joins before it returns
  kLater,          // after `delay` from a main-queue timer, or, without a delay, never
};
struct Timing {
  Answer answer = Answer::kAtOnce;
  std::optional<Duration> delay;  // also delays kOnOtherThread: the timer starts the thread
};

// Hears what a fake is asked ("CALL") and what it answers ("ANSWER"), as one line of text.
using TraceHook = std::function<void(std::string_view kind, std::string text)>;

// "nil" or "Domain/code", as traces show an error.
std::string traceText(const ZBIAPErrorPtr& error);
// "[a b c]", as traces show a list.
std::string traceList(const std::vector<std::string>& items);
// Runs `reply` as `when` says. Returns false, running nothing, when the reply is held.
bool replyAs(const Timing& when, std::function<void()> reply);

class FakeStore final : public ZBIAPStore, public std::enable_shared_from_this<FakeStore> {
 public:
  struct CountryReply {
    std::optional<std::string> code;
    ZBIAPErrorPtr error;
    Timing when;
  };
  struct ProductsReply {
    // Nullopt: a product for every identifier asked for.
    std::optional<std::vector<ZBIAPStoreProductPtr>> products;
    ZBIAPErrorPtr error;
    Timing when;
  };

  static std::shared_ptr<FakeStore> create() { return std::shared_ptr<FakeStore>(new FakeStore); }
  // A plain product; `price` is a decimal text.
  static ZBIAPStoreProductPtr makeProduct(const std::string& identifier,
                                          const std::string& price = "0.99",
                                          const std::string& priceLocale = "en_US@currency=USD");

  FakeStore(const FakeStore&) = delete;
  FakeStore& operator=(const FakeStore&) = delete;

  // Country queries: the next one is answered by each of `calls` in turn (a store may call a
  // completion more than once); unqueued ones by the default, which holds them unless scripted.
  void queueCountry(std::vector<CountryReply> calls);
  void scriptCountry(Answer answer, std::optional<std::string> code, ZBIAPErrorPtr error = nullptr);
  // Product queries; unqueued ones answer at once with a product for each identifier asked.
  void queueProducts(ProductsReply reply);
  // Drops every held completion unanswered.
  void dropPending();

  // Purchase data, and the delegate calls that report it.
  void setInAppPurchases(std::vector<ZBIAPReceiptIAPPtr> purchases);
  void setOriginalPurchaseDate(std::optional<zbiap::Date> date);
  void setOriginalPurchaseVersion(std::optional<std::string> version);
  // Calls the delegate's storeDidUpdateInformations() on the calling thread.
  void tellDelegateInformationsChanged();
  // Calls the delegate's store(store, code) on the calling thread.
  void tellDelegateCountry(const std::optional<std::string>& code);
  // Run inside setStoreDelegate() and setManager(), after the new value is kept, as a store
  // that reports or reads at once would.
  std::function<void()> onDelegateSet;
  std::function<void()> onManagerSet;
  // Run once, inside the next read of inAppPurchases(), after the list to return was taken: a
  // test replays there what another thread did between the read and its use.
  mutable std::function<void()> onPurchasesRead;
  // Set before the store is used.
  TraceHook trace;

  // ZBIAPStore. Purchases, restores and refreshes succeed at once.
  bool canPurchaseProduct(const ZBIAPStoreProductPtr& product) override;
  void queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                              CountryCompletion completion) override;
  void queryProducts(const std::vector<std::string>& productIdentifiers,
                     ProductsCompletion completion) override;
  void purchaseProduct(const ZBIAPStoreProductPtr& product, SuccessCompletion completion) override;
  void restorePurchasesWithCompletion(RestoreCompletion completion) override;
  void refreshReceiptWithCompletion(SuccessCompletion completion) override;
  std::shared_ptr<ZBIAPStoreDelegate> storeDelegate() const override;
  void setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) override;
  std::shared_ptr<ZBIAPManager> manager() const override;
  void setManager(std::weak_ptr<ZBIAPManager> manager) override;
  std::optional<zbiap::Date> originalPurchaseDate() const override;
  std::optional<std::string> originalPurchaseVersion() const override;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override;

 private:
  FakeStore() = default;
  void note(std::string_view kind, std::string text) const {
    if (trace) trace(kind, std::move(text));
  }

  mutable std::mutex mutex_;
  std::deque<std::vector<CountryReply>> countryReplies_;
  CountryReply countryDefault_{std::nullopt, nullptr, {Answer::kLater, std::nullopt}};
  std::deque<ProductsReply> productsReplies_;
  // Completions held unanswered, type-erased so that dropPending() can let them go.
  std::vector<std::function<void()>> held_;

  std::vector<ZBIAPReceiptIAPPtr> purchases_;
  std::optional<zbiap::Date> originalPurchaseDate_;
  std::optional<std::string> originalPurchaseVersion_;
  std::weak_ptr<ZBIAPStoreDelegate> delegate_;
  std::weak_ptr<ZBIAPManager> manager_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_FAKE_STORE_H_
