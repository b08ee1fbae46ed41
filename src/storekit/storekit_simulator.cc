#include "zbiap/storekit/storekit_simulator.h"

#include <fmt/format.h>

#include <chrono>
#include <fstream>
#include <system_error>
#include <utility>

#include "storekit/storefront.h"
#include "zbiap/platform/platform.h"
#include "zbiap/storekit/sk_error.h"

namespace zbiap {
namespace {

using ProductType = StoreKitConfiguration::ProductType;

ZBIAPErrorPtr storeKitError(int64_t code) { return ZBIAPError::make(SKErrorDomain, code); }

// `start` plus `times` periods on the Gregorian calendar (UTC), shortened by the time rate.
Date addPeriods(Date start, SKProductSubscriptionPeriod period, uint64_t times, int64_t timeRate) {
  using namespace std::chrono;
  const auto point = start.sysTime();
  const sys_days day = floor<days>(point);
  const auto timeOfDay = point - day;
  const auto count = static_cast<int64_t>(period.numberOfUnits * times);
  sys_time<system_clock::duration> end;
  switch (period.unit) {
    case SKProductPeriodUnit::kDay:
      end = point + days(count);
      break;
    case SKProductPeriodUnit::kWeek:
      end = point + weeks(count);
      break;
    case SKProductPeriodUnit::kMonth:
    case SKProductPeriodUnit::kYear: {
      year_month_day date(day);
      date += months(period.unit == SKProductPeriodUnit::kMonth ? count : count * 12);
      if (!date.ok()) date = date.year() / date.month() / last;
      end = sys_days(date) + timeOfDay;
      break;
    }
  }
  return start +
         duration_cast<microseconds>(end - point) / subscriptionSpeedUp(timeRate).value_or(1);
}

std::string pickLanguage(std::string_view locale) {
  return std::string(locale.substr(0, locale.find_first_of("_-@")));
}

}  // namespace

std::shared_ptr<StoreKitSimulator> StoreKitSimulator::create(StoreKitConfiguration configuration) {
  std::unique_ptr<ReceiptWriter> writer = ReceiptWriter::create();
  if (!writer) return nullptr;
  return std::shared_ptr<StoreKitSimulator>(
      new StoreKitSimulator(std::move(configuration), std::move(writer)));
}

StoreKitSimulator::StoreKitSimulator(StoreKitConfiguration configuration,
                                     std::unique_ptr<ReceiptWriter> writer)
    : configuration_(std::move(configuration)),
      writer_(std::move(writer)),
      installDate_(Platform::current().now()) {}

StoreKitSimulator::~StoreKitSimulator() = default;

// ----- Settings and scripting -----

void StoreKitSimulator::setStorefront(std::string alpha3) {
  std::lock_guard<std::mutex> lock(mu_);
  configuration_.storefront = std::move(alpha3);
}

std::string StoreKitSimulator::storefront() const {
  std::lock_guard<std::mutex> lock(mu_);
  return configuration_.storefront;
}

void StoreKitSimulator::setLocale(std::string locale) {
  std::lock_guard<std::mutex> lock(mu_);
  configuration_.locale = std::move(locale);
}

void StoreKitSimulator::setCanMakePayments(bool canMakePayments) {
  std::lock_guard<std::mutex> lock(mu_);
  canMakePayments_ = canMakePayments;
}

void StoreKitSimulator::setTimeRate(int64_t timeRate) {
  std::lock_guard<std::mutex> lock(mu_);
  configuration_.timeRate = timeRate;
}

void StoreKitSimulator::setReceiptURL(std::optional<std::filesystem::path> url) {
  std::lock_guard<std::mutex> lock(mu_);
  receiptURL_ = std::move(url);
}

std::filesystem::path StoreKitSimulator::receiptURL() const {
  std::lock_guard<std::mutex> lock(mu_);
  return receiptURL_ ? *receiptURL_ : Platform::current().mainBundle().appStoreReceiptURL();
}

void StoreKitSimulator::setOutcome(const std::string& productID, Outcome outcome) {
  std::lock_guard<std::mutex> lock(mu_);
  outcomes_[productID] = std::move(outcome);
}

void StoreKitSimulator::clearOutcome(const std::string& productID) {
  std::lock_guard<std::mutex> lock(mu_);
  outcomes_.erase(productID);
}

bool StoreKitSimulator::approveDeferred(const std::string& productID) {
  return endDeferred(productID, Outcome{Outcome::Kind::kSucceed, nullptr});
}

bool StoreKitSimulator::declineDeferred(const std::string& productID) {
  return endDeferred(productID, Outcome{Outcome::Kind::kCancel, nullptr});
}

bool StoreKitSimulator::endDeferred(const std::string& productID, Outcome outcome) {
  SKPaymentTransactionPtr transaction;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = deferred_.begin(); it != deferred_.end(); ++it) {
      if ((*it)->payment()->productIdentifier() == productID) {
        transaction = *it;
        deferred_.erase(it);
        break;
      }
    }
  }
  if (!transaction) return false;
  auto self = shared_from_this();
  post([self, transaction, outcome] { self->settle(transaction, outcome); });
  return true;
}

void StoreKitSimulator::setProductsRequestError(ZBIAPErrorPtr error) {
  std::lock_guard<std::mutex> lock(mu_);
  productsRequestError_ = std::move(error);
}

void StoreKitSimulator::setRestoreError(ZBIAPErrorPtr error) {
  std::lock_guard<std::mutex> lock(mu_);
  restoreError_ = std::move(error);
}

void StoreKitSimulator::setReceiptRefreshError(ZBIAPErrorPtr error) {
  std::lock_guard<std::mutex> lock(mu_);
  receiptRefreshError_ = std::move(error);
}

std::vector<ReceiptPurchase> StoreKitSimulator::purchaseHistory() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<ReceiptPurchase> out;
  for (const HistoryEntry& entry : history_) {
    if (!entry.consumed) out.push_back(entry.purchase);
  }
  return out;
}

void StoreKitSimulator::clearPurchaseHistory() {
  std::lock_guard<std::mutex> lock(mu_);
  history_.clear();
}

bool StoreKitSimulator::writeReceipt() {
  std::lock_guard<std::mutex> lock(mu_);
  return locked_writeReceipt();
}

size_t StoreKitSimulator::receiptWriteCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return receiptWrites_;
}

// ----- Products -----

std::vector<SKProductPtr> StoreKitSimulator::products() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<SKProductPtr> out;
  for (const auto& product : configuration_.products) out.push_back(locked_product(product));
  return out;
}

SKProductPtr StoreKitSimulator::locked_product(const StoreKitConfiguration::Product& p) const {
  const std::string& locale = configuration_.locale;
  const StoreKitConfiguration::Localization* chosen = nullptr;
  for (const auto& l : p.localizations) {
    if (l.locale == locale) chosen = &l;
  }
  for (const auto& l : p.localizations) {
    if (!chosen && pickLanguage(l.locale) == pickLanguage(locale)) chosen = &l;
  }
  if (!chosen && !p.localizations.empty()) chosen = &p.localizations.front();

  SKProductValues values;
  values.productIdentifier = p.productID;
  values.price = p.displayPrice;
  values.priceLocale = storekit::priceLocaleFor(locale, configuration_.storefront);
  if (chosen) {
    values.localizedTitle = chosen->displayName;
    values.localizedDescription = chosen->description;
  }
  values.isFamilyShareable = p.familyShareable;
  values.subscriptionGroupIdentifier = p.subscriptionGroupID;
  values.subscriptionPeriod = p.recurringSubscriptionPeriod;
  auto discount = [&](const StoreKitConfiguration::Offer& offer, uint64_t type) {
    return std::make_shared<const SKProductDiscount>(SKProductDiscount{
        offer.displayPrice, values.priceLocale, offer.identifier, offer.subscriptionPeriod,
        offer.numberOfPeriods, offer.paymentMode, type});
  };
  if (p.introductoryOffer) {
    values.introductoryPrice = discount(*p.introductoryOffer, SKProductDiscountTypeIntroductory);
  }
  for (const auto& offer : p.promotionalOffers) {
    values.discounts.push_back(discount(offer, SKProductDiscountTypeSubscription));
  }
  return std::make_shared<const SKProduct>(std::move(values));
}

// ----- StoreKitBinding -----

std::shared_ptr<SKPaymentQueue> StoreKitSimulator::defaultQueue() { return shared_from_this(); }

bool StoreKitSimulator::canMakePayments() {
  std::lock_guard<std::mutex> lock(mu_);
  return canMakePayments_;
}

void StoreKitSimulator::startProductsRequest(std::shared_ptr<SKProductsRequest> request) {
  if (!request) return;
  auto self = shared_from_this();
  post([self, request] {
    ZBIAPErrorPtr error;
    std::vector<SKProductPtr> products;
    std::vector<std::string> invalid;
    {
      std::lock_guard<std::mutex> lock(self->mu_);
      error = self->productsRequestError_;
      for (const std::string& id : request->productIdentifiers()) {
        if (const auto* product = self->configuration_.productWithID(id)) {
          products.push_back(self->locked_product(*product));
        } else {
          invalid.push_back(id);
        }
      }
    }
    auto delegate = request->delegate();
    if (!delegate) return;
    if (error) {
      delegate->request(request, error);
      return;
    }
    if (auto productsDelegate = std::dynamic_pointer_cast<SKProductsRequestDelegate>(delegate)) {
      productsDelegate->productsRequest(request, std::make_shared<const SKProductsResponse>(
                                                     std::move(products), std::move(invalid)));
    }
    if (request->delegate()) delegate->requestDidFinish(request);
  });
}

void StoreKitSimulator::startReceiptRefreshRequest(
    std::shared_ptr<SKReceiptRefreshRequest> request) {
  if (!request) return;
  auto self = shared_from_this();
  post([self, request] {
    ZBIAPErrorPtr error;
    {
      std::lock_guard<std::mutex> lock(self->mu_);
      error = self->receiptRefreshError_;
      if (!error && !self->locked_writeReceipt()) error = storeKitError(SKErrorUnknown);
    }
    auto delegate = request->delegate();
    if (!delegate) return;
    if (error) {
      delegate->request(request, error);
    } else {
      delegate->requestDidFinish(request);
    }
  });
}

// ----- SKPaymentQueue -----

void StoreKitSimulator::addTransactionObserver(
    std::weak_ptr<SKPaymentTransactionObserver> observer) {
  auto strong = observer.lock();
  if (!strong) return;
  std::vector<SKPaymentTransactionPtr> waiting;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const Observer& o : observers_) {
      if (o.address == strong.get()) return;
    }
    observers_.push_back({strong.get(), observer});
    // Transactions that ended but were never finished are told to every new observer, as
    // StoreKit does at launch.
    for (const auto& [handle, transaction] : unfinished_) {
      const auto state = transaction->transactionState();
      if (state == SKPaymentTransactionStatePurchased || state == SKPaymentTransactionStateFailed ||
          state == SKPaymentTransactionStateRestored) {
        waiting.push_back(transaction);
      }
    }
  }
  if (waiting.empty()) return;
  auto self = shared_from_this();
  post([self, observer, waiting] {
    if (auto target = observer.lock()) target->paymentQueue(*self, waiting);
  });
}

void StoreKitSimulator::removeTransactionObserver(const SKPaymentTransactionObserver* observer) {
  std::lock_guard<std::mutex> lock(mu_);
  std::erase_if(observers_, [&](const Observer& o) { return o.address == observer; });
}

void StoreKitSimulator::addPayment(SKPaymentPtr payment) {
  if (!payment) return;
  SKPaymentTransactionPtr transaction;
  Outcome outcome;
  {
    std::lock_guard<std::mutex> lock(mu_);
    SKPaymentTransaction::Values values;
    values.payment = payment;
    values.queueHandle = ++nextHandle_;
    transaction = std::make_shared<const SKPaymentTransaction>(std::move(values));
    unfinished_[transaction->queueHandle()] = transaction;
    if (!configuration_.productWithID(payment->productIdentifier())) {
      outcome = {Outcome::Kind::kFail, storeKitError(SKErrorStoreProductNotAvailable)};
    } else if (!canMakePayments_) {
      outcome = {Outcome::Kind::kFail, storeKitError(SKErrorPaymentNotAllowed)};
    } else {
      outcome = locked_outcomeFor(payment->productIdentifier());
    }
  }
  auto self = shared_from_this();
  post([self, transaction] { self->deliver({transaction}); });
  post([self, transaction, outcome] { self->settle(transaction, outcome); });
}

void StoreKitSimulator::finishTransaction(const SKPaymentTransactionPtr& transaction) {
  if (!transaction) return;
  std::lock_guard<std::mutex> lock(mu_);
  auto it = unfinished_.find(transaction->queueHandle());
  if (it == unfinished_.end()) return;
  const auto state = it->second->transactionState();
  if (state == SKPaymentTransactionStatePurchasing || state == SKPaymentTransactionStateDeferred) {
    return;  // StoreKit refuses to finish a transaction that has not ended
  }
  if (state == SKPaymentTransactionStatePurchased && it->second->transactionIdentifier()) {
    for (HistoryEntry& entry : history_) {
      if (entry.type == ProductType::kConsumable &&
          entry.purchase.transactionIdentifier == it->second->transactionIdentifier()) {
        entry.consumed = true;
      }
    }
  }
  unfinished_.erase(it);
}

void StoreKitSimulator::restoreCompletedTransactions() {
  auto self = shared_from_this();
  post([self] {
    ZBIAPErrorPtr error;
    std::vector<SKPaymentTransactionPtr> restored;
    {
      std::lock_guard<std::mutex> lock(self->mu_);
      error = self->restoreError_;
      if (!error) {
        const Date now = Platform::current().now();
        for (const HistoryEntry& entry : self->history_) {
          if (entry.type == ProductType::kConsumable ||
              entry.type == ProductType::kNonRenewingSubscription) {
            continue;
          }
          auto payment = self->paymentFor(entry.purchase);
          SKPaymentTransaction::Values original;
          original.payment = payment;
          original.transactionState = SKPaymentTransactionStatePurchased;
          original.transactionIdentifier = entry.purchase.transactionIdentifier;
          original.transactionDate = entry.purchase.purchaseDate;
          SKPaymentTransaction::Values values;
          values.payment = payment;
          values.transactionState = SKPaymentTransactionStateRestored;
          values.transactionIdentifier = self->locked_nextTransactionIdentifier();
          values.transactionDate = now;
          values.originalTransaction =
              std::make_shared<const SKPaymentTransaction>(std::move(original));
          values.queueHandle = ++self->nextHandle_;
          auto transaction = std::make_shared<const SKPaymentTransaction>(std::move(values));
          self->unfinished_[transaction->queueHandle()] = transaction;
          restored.push_back(std::move(transaction));
        }
        if (!self->locked_writeReceipt()) error = storeKitError(SKErrorUnknown);
      }
    }
    if (error) {
      for (const auto& observer : self->liveObservers()) observer->paymentQueue(*self, error);
      return;
    }
    if (!restored.empty()) self->deliver(restored);
    for (const auto& observer : self->liveObservers()) {
      observer->paymentQueueRestoreCompletedTransactionsFinished(*self);
    }
  });
}

std::vector<SKPaymentTransactionPtr> StoreKitSimulator::transactions() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<SKPaymentTransactionPtr> out;
  for (const auto& [handle, transaction] : unfinished_) out.push_back(transaction);
  return out;
}

// ----- Transactions -----

StoreKitSimulator::Outcome StoreKitSimulator::locked_outcomeFor(
    const std::string& productID) const {
  auto it = outcomes_.find(productID);
  if (it != outcomes_.end()) return it->second;
  if (configuration_.askToBuyEnabled) return {Outcome::Kind::kDefer, nullptr};
  if (configuration_.failTransactionsEnabled) return {Outcome::Kind::kFail, nullptr};
  return {Outcome::Kind::kSucceed, nullptr};
}

std::string StoreKitSimulator::locked_nextTransactionIdentifier() {
  return std::to_string(2000000000000000LL + static_cast<int64_t>(++nextTransaction_));
}

SKPaymentPtr StoreKitSimulator::paymentFor(const ReceiptPurchase& purchase) const {
  SKProductValues values;
  values.productIdentifier = purchase.productIdentifier.value_or("");
  return SKPayment::paymentWithProduct(std::make_shared<const SKProduct>(std::move(values)));
}

SKPaymentTransactionPtr StoreKitSimulator::locked_update(const SKPaymentTransactionPtr& transaction,
                                                         SKPaymentTransactionState state,
                                                         ZBIAPErrorPtr error) {
  SKPaymentTransaction::Values values;
  values.payment = transaction->payment();
  values.transactionState = state;
  values.error = std::move(error);
  values.queueHandle = transaction->queueHandle();
  auto updated = std::make_shared<const SKPaymentTransaction>(std::move(values));
  unfinished_[updated->queueHandle()] = updated;
  return updated;
}

SKPaymentTransactionPtr StoreKitSimulator::locked_purchase(
    const SKPaymentTransactionPtr& transaction) {
  const Date now = Platform::current().now();
  const std::string productID = transaction->payment()->productIdentifier();
  const auto* product = configuration_.productWithID(productID);
  const std::string identifier = locked_nextTransactionIdentifier();

  HistoryEntry entry;
  entry.type = product ? product->type : ProductType::kNonConsumable;
  entry.groupID = product ? product->subscriptionGroupID : std::nullopt;
  ReceiptPurchase& purchase = entry.purchase;
  purchase.quantity = transaction->payment()->quantity();
  purchase.productIdentifier = productID;
  purchase.transactionIdentifier = identifier;
  purchase.originalTransactionIdentifier = identifier;
  purchase.purchaseDate = now;
  purchase.originalPurchaseDate = now;
  if (product && product->type == ProductType::kAutoRenewable &&
      product->recurringSubscriptionPeriod) {
    bool eligible = product->introductoryOffer.has_value();
    for (const HistoryEntry& earlier : history_) {
      if (earlier.groupID && earlier.groupID == entry.groupID) eligible = false;
    }
    purchase.subscriptionExpirationDate =
        eligible
            ? addPeriods(now, product->introductoryOffer->subscriptionPeriod,
                         product->introductoryOffer->numberOfPeriods, configuration_.timeRate)
            : addPeriods(now, *product->recurringSubscriptionPeriod, 1, configuration_.timeRate);
    purchase.webOrderLineItemID = 1000000000LL + static_cast<int64_t>(nextTransaction_);
  }
  history_.push_back(std::move(entry));

  SKPaymentTransaction::Values values;
  values.payment = transaction->payment();
  values.transactionState = SKPaymentTransactionStatePurchased;
  values.transactionIdentifier = identifier;
  values.transactionDate = now;
  values.queueHandle = transaction->queueHandle();
  auto updated = std::make_shared<const SKPaymentTransaction>(std::move(values));
  unfinished_[updated->queueHandle()] = updated;
  return updated;
}

void StoreKitSimulator::settle(const SKPaymentTransactionPtr& transaction, Outcome outcome) {
  SKPaymentTransactionPtr updated;
  {
    std::lock_guard<std::mutex> lock(mu_);
    switch (outcome.kind) {
      case Outcome::Kind::kSucceed:
        updated = locked_purchase(transaction);
        locked_writeReceipt();
        break;
      case Outcome::Kind::kFail:
        updated = locked_update(transaction, SKPaymentTransactionStateFailed,
                                outcome.error ? outcome.error : storeKitError(SKErrorUnknown));
        break;
      case Outcome::Kind::kCancel:
        updated = locked_update(transaction, SKPaymentTransactionStateFailed,
                                storeKitError(SKErrorPaymentCancelled));
        break;
      case Outcome::Kind::kAlreadySubscribed:
        updated =
            locked_update(transaction, SKPaymentTransactionStateFailed,
                          ZBIAPError::make(SSServerErrorDomain, SSServerErrorAlreadySubscribed));
        break;
      case Outcome::Kind::kDefer:
        updated = locked_update(transaction, SKPaymentTransactionStateDeferred, nullptr);
        deferred_.push_back(updated);
        break;
    }
  }
  deliver({updated});
}

// ----- Receipt -----

bool StoreKitSimulator::locked_writeReceipt() {
  ReceiptContents contents;
  contents.environment = "Xcode";
  Bundle& bundle = Platform::current().mainBundle();
  const Dictionary info = bundle.infoDictionary();
  if (const std::string* id = info["CFBundleIdentifier"].asString()) {
    contents.bundleIdentifier = *id;
  }
  std::optional<std::string> version;
  if (const std::string* v = info["CFBundleVersion"].asString()) version = *v;
  if (!version) {
    if (const std::string* v = info["CFBundleShortVersionString"].asString()) version = *v;
  }
  contents.appVersion = version.value_or("1.0");
  if (!originalAppVersion_) originalAppVersion_ = contents.appVersion;
  contents.originalAppVersion = originalAppVersion_;
  contents.creationDate = Platform::current().now();
  contents.originalPurchaseDate = installDate_;
  for (const HistoryEntry& entry : history_) {
    if (!entry.consumed) contents.purchases.push_back(entry.purchase);
  }
  std::optional<Data> data = writer_->write(contents);

  const std::filesystem::path path = receiptURL_ ? *receiptURL_ : bundle.appStoreReceiptURL();
  auto fail = [&](const std::string& reason) {
    Platform::current().systemLog(fmt::format(
        "StoreKit simulator: cannot write the receipt at {}: {}", path.string(), reason));
    return false;
  };
  if (!data) return fail("the receipt could not be signed");
  if (path.empty()) return fail("no receipt URL");
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  if (error) return fail(error.message());
  // A complete file under a temporary name, then renamed over the old one: readers see the
  // old receipt or the new one, never a part.
  const std::filesystem::path temporary =
      path.parent_path() / ("." + path.filename().string() + ".simulator-tmp");
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data->data()),
              static_cast<std::streamsize>(data->size()));
    out.close();
    if (!out) {
      std::filesystem::remove(temporary, error);
      return fail("cannot write " + temporary.string());
    }
  }
  std::filesystem::rename(temporary, path, error);
  if (error) {
    std::filesystem::remove(temporary, error);
    return fail(error.message());
  }
  ++receiptWrites_;
  return true;
}

// ----- Delivery -----

std::vector<std::shared_ptr<SKPaymentTransactionObserver>> StoreKitSimulator::liveObservers() {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<std::shared_ptr<SKPaymentTransactionObserver>> out;
  for (const Observer& o : observers_) {
    if (auto observer = o.observer.lock()) out.push_back(std::move(observer));
  }
  return out;
}

void StoreKitSimulator::deliver(std::vector<SKPaymentTransactionPtr> batch) {
  for (const auto& observer : liveObservers()) observer->paymentQueue(*this, batch);
}

void StoreKitSimulator::post(std::function<void()> task) {
  Platform::current().mainQueue().post(std::move(task));
}

}  // namespace zbiap
