/* capi_flow STOREKIT_FILE: a host written in C, through zbiap_c.h only. It runs the demo's flow
   (start-up, country, catalogue with prices, a purchase, a restore that brings the account's
   purchase) against the servers that zbiap_capi_servers started, running the main queue from
   its own poll() loop, then tries the API's error paths from one table. Exit 0 when all held. */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zbiap/zbiap_c.h"

static int failures = 0;

#define CHECK(condition)                                                   \
  do {                                                                     \
    if (!(condition)) {                                                    \
      ++failures;                                                          \
      fprintf(stderr, "capi_flow:%d: failed: %s\n", __LINE__, #condition); \
    }                                                                      \
  } while (0)

static const char* env(const char* name) {
  const char* value = getenv(name);
  if (value == NULL) {
    fprintf(stderr, "capi_flow: %s is not set (run under zbiap_capi_servers)\n", name);
    exit(2);
  }
  return value;
}

/* The host's side of the account store: the sign-in header and the kept purchase list. */
static char kept[4096];
static int add_headers(void* context, int is_retrying, zbiap_headers* headers) {
  char value[256];
  (void)is_retrying;
  snprintf(value, sizeof value, "Bearer %s", (const char*)context);
  return zbiap_headers_add(headers, "Authorization", value);
}
static void save_purchases(void* context, const char* purchases) {
  (void)context;
  snprintf(kept, sizeof kept, "%s", purchases);
}
static const char* read_purchases(void* context) {
  (void)context;
  return kept[0] ? kept : NULL;
}

/* Outcomes the callbacks leave for the loop. */
static int notifications[5];
static int purchase_done, restore_done, restore_result = -1;
static void on_notification(void* context, int which) {
  (void)context;
  if (which >= 1 && which <= 4) ++notifications[which];
}
static void on_purchase(void* context, const zbiap_error* error) {
  (void)context;
  if (error) fprintf(stderr, "purchase failed: %s\n", zbiap_error_description(error));
  purchase_done = error ? -1 : 1;
}
static void on_restore(void* context, int result, const zbiap_error* error) {
  (void)context;
  (void)error;
  restore_result = result;
  restore_done = 1;
}

/* The host's loop: waits on the wakeup descriptor or the next timer, then drains. */
static zbiap_platform* platform;
static zbiap_manager* manager;
typedef int (*condition_fn)(void);
static int wait_for(const char* what, condition_fn done) {
  int fd = -1;
  time_t deadline = time(NULL) + 20;
  zbiap_platform_wakeup_fd(platform, &fd);
  while (!done()) {
    int64_t due = -1;
    struct pollfd wake = {fd, POLLIN, 0};
    if (time(NULL) > deadline) {
      fprintf(stderr, "capi_flow: no %s within 20 s\n", what);
      ++failures;
      return 0;
    }
    zbiap_platform_next_due(platform, &due);
    poll(&wake, 1, due < 0 || due > 1000 ? 1000 : (int)due);
    zbiap_platform_drain(platform, NULL);
  }
  return 1;
}
static int has_purchase(const char* product) {
  zbiap_purchases* purchases = NULL;
  size_t count = 0, i;
  int found = 0;
  zbiap_manager_copy_purchases(manager, &purchases);
  zbiap_purchases_count(purchases, &count);
  for (i = 0; i < count; ++i) {
    const char* id = NULL;
    zbiap_purchases_text(purchases, i, ZBIAP_PURCHASE_PRODUCT_ID, &id);
    found |= id != NULL && strcmp(id, product) == 0;
  }
  zbiap_purchases_free(purchases);
  return found;
}
static int priced(void) {
  int state = 0;
  zbiap_manager_state(manager, &state);
  return state == ZBIAP_STATE_READY_STORE_PRODUCTS;
}
static int purchased(void) {
  return purchase_done != 0 && has_purchase("com.example.app.lifetime");
}
static int restored(void) {
  return restore_done && has_purchase(getenv("ZBIAP_TEST_ACCOUNT_PRODUCT"));
}

int main(int argc, char** argv) {
  char defaults[1024];
  zbiap_platform_options platform_options = {0};
  zbiap_simulator* simulator = NULL;
  zbiap_store *app_store = NULL, *account_store = NULL, *store = NULL, *members[2];
  zbiap_fetcher* fetcher = NULL;
  zbiap_manager* idle = NULL;
  zbiap_products* products = NULL;
  zbiap_account_store_options account = {0};
  zbiap_fetcher_options fetcher_options = {0};
  zbiap_manager_options manager_options = {0};
  char* country = NULL;
  size_t count = 0, i;
  int state = 0, with_price = 0;

  if (argc != 2) {
    fprintf(stderr, "usage: capi_flow STOREKIT_FILE\n");
    return 2;
  }
  printf("zbiap %s\n", zbiap_version());
  snprintf(defaults, sizeof defaults, "%s/defaults.sqlite3", env("ZBIAP_TEST_BUNDLE"));
  platform_options.bundle_dir = env("ZBIAP_TEST_BUNDLE");
  platform_options.user_defaults_path = defaults;
  CHECK(zbiap_platform_create(&platform_options, &platform) == ZBIAP_OK);
  CHECK(zbiap_simulator_create(argv[1], &simulator) == ZBIAP_OK);

  account.base_url = env("ZBIAP_TEST_ACCOUNT_URL");
  account.context = (void*)env("ZBIAP_TEST_ACCOUNT_TOKEN");
  account.request_headers = add_headers;
  account.save_purchases = save_purchases;
  account.read_purchases = read_purchases;
  CHECK(zbiap_store_create_app_store(&app_store) == ZBIAP_OK);
  CHECK(zbiap_store_create_account_store(&account, &account_store) == ZBIAP_OK);
  members[0] = app_store;
  members[1] = account_store;
  CHECK(zbiap_store_create_compound(members, 2, &store) == ZBIAP_OK);
  /* The compound store keeps what it needs of its members. */
  CHECK(zbiap_store_destroy(app_store) == ZBIAP_OK);
  CHECK(zbiap_store_destroy(account_store) == ZBIAP_OK);

  fetcher_options.base_url = env("ZBIAP_TEST_CATALOG_URL");
  fetcher_options.consumer_key = env("ZBIAP_TEST_CONSUMER_KEY");
  fetcher_options.consumer_secret = env("ZBIAP_TEST_CONSUMER_SECRET");
  fetcher_options.signature_key = env("ZBIAP_TEST_PUBLIC_KEY");
  CHECK(zbiap_fetcher_create(&fetcher_options, &fetcher) == ZBIAP_OK);
  manager_options.store = store;
  manager_options.fetcher = fetcher;
  manager_options.country_product = "com.example.app.lifetime";
  manager_options.fallback_country = "US";
  CHECK(zbiap_manager_create(&manager_options, &manager) == ZBIAP_OK);
  CHECK(zbiap_manager_set_observer(manager, on_notification, NULL) == ZBIAP_OK);
  if (failures) return 1;

  /* Start-up, country, catalogue. */
  CHECK(zbiap_manager_commit(manager) == ZBIAP_OK);
  CHECK(wait_for("catalogue with prices", priced));
  CHECK(notifications[ZBIAP_NOTIFICATION_READY] == 1 &&
        notifications[ZBIAP_NOTIFICATION_PRODUCTS] > 0);
  CHECK(zbiap_manager_country(manager, &country) == ZBIAP_OK && country != NULL);
  printf("country: %s\n", country ? country : "(unknown)");
  CHECK(country != NULL && strcmp(country, "US") == 0);
  zbiap_free(country);
  CHECK(zbiap_manager_copy_products(manager, &products) == ZBIAP_OK);
  zbiap_products_count(products, &count);
  CHECK(count == 4);
  for (i = 0; i < count; ++i) {
    const char *id = NULL, *title = NULL, *price = NULL;
    double rgba[4] = {0};
    int has_color = 0;
    size_t features = 0;
    zbiap_products_text(products, i, ZBIAP_PRODUCT_IDENTIFIER, &id);
    zbiap_products_text(products, i, ZBIAP_PRODUCT_TITLE, &title);
    zbiap_products_text(products, i, ZBIAP_PRODUCT_LOCALIZED_PRICE, &price);
    CHECK(zbiap_products_color(products, i, ZBIAP_PRODUCT_BACKGROUND_COLOR, rgba, &has_color) ==
          ZBIAP_OK);
    zbiap_products_feature_count(products, i, &features);
    printf("  %s: %s, %s, %zu feature(s)%s\n", id, title ? title : "-", price ? price : "-",
           features, has_color ? ", coloured" : "");
    with_price += price != NULL && price[0] == '$';
  }
  CHECK(with_price == 4);

  /* A purchase, then a restore that brings the account's purchase. */
  CHECK(zbiap_manager_purchase(manager, "com.example.app.lifetime", on_purchase, NULL) == ZBIAP_OK);
  CHECK(wait_for("purchase", purchased) && purchase_done == 1);
  CHECK(notifications[ZBIAP_NOTIFICATION_PURCHASES] > 0);
  printf("purchased com.example.app.lifetime\n");
  CHECK(zbiap_manager_restore(manager, on_restore, NULL) == ZBIAP_OK);
  CHECK(wait_for("restore", restored) && restore_result != ZBIAP_RESTORE_FAILED);
  CHECK(has_purchase("com.example.app.lifetime") && kept[0] != '\0');
  printf("restored: %s\n", getenv("ZBIAP_TEST_ACCOUNT_PRODUCT"));

  /* Bad input gets an error, never a crash. The calls are independent of each other. */
  {
    const char* text = NULL;
    zbiap_store* no_store = NULL;
    zbiap_platform* no_platform = NULL;
    zbiap_manager* no_manager = NULL;
    zbiap_fetcher* bad_fetcher = NULL;
    zbiap_fetcher_options bad_key = fetcher_options, no_key = fetcher_options;
    zbiap_manager_options no_fetcher = manager_options;
    bad_key.signature_key = "not a key";
    no_key.consumer_key = "";
    no_fetcher.fetcher = NULL;
    CHECK(zbiap_manager_create(&manager_options, &idle) == ZBIAP_OK);
    {
      const struct {
        const char* call;
        int expected, actual;
      } cases[] = {
          {"state of no manager", ZBIAP_ERROR_INVALID_ARGUMENT, zbiap_manager_state(NULL, &state)},
          {"purchase of an unknown product", ZBIAP_ERROR_NOT_FOUND,
           zbiap_manager_purchase(manager, "com.example.none", on_purchase, NULL)},
          {"purchase of no product", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_manager_purchase(manager, NULL, on_purchase, NULL)},
          {"a second commit", ZBIAP_ERROR_WRONG_STATE, zbiap_manager_commit(manager)},
          {"refresh before ready", ZBIAP_ERROR_WRONG_STATE,
           zbiap_manager_refresh_products(idle, NULL, NULL)},
          {"a second platform", ZBIAP_ERROR_WRONG_STATE, zbiap_platform_create(NULL, &no_platform)},
          {"platform destroyed in use", ZBIAP_ERROR_WRONG_STATE, zbiap_platform_destroy(platform)},
          {"simulator destroyed in use", ZBIAP_ERROR_WRONG_STATE,
           zbiap_simulator_destroy(simulator)},
          {"product past the end", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_products_text(products, 99, ZBIAP_PRODUCT_TITLE, &text)},
          {"unknown product field", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_products_text(products, 0, 42, &text)},
          {"feature past the end", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_products_feature(products, 0, 99, &text)},
          {"compound of no stores", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_store_create_compound(members, 0, &no_store)},
          {"manager without fetcher", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_manager_create(&no_fetcher, &no_manager)},
          {"fetcher with a bad key", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_fetcher_create(&bad_key, &bad_fetcher)},
          {"fetcher with an empty consumer key", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_fetcher_create(&no_key, &bad_fetcher)},
          {"header without a list", ZBIAP_ERROR_INVALID_ARGUMENT,
           zbiap_headers_add(NULL, "Authorization", "x")},
          {"destroy of no store", ZBIAP_ERROR_INVALID_ARGUMENT, zbiap_store_destroy(NULL)},
      };
      for (i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        if (cases[i].actual != cases[i].expected) {
          ++failures;
          fprintf(stderr, "capi_flow: %s: status %d, expected %d\n", cases[i].call, cases[i].actual,
                  cases[i].expected);
        }
      }
    }
    /* The last failure is described, with the C API's own domain and the status as code. */
    CHECK(zbiap_products_text(products, 99, 0, &text) == ZBIAP_ERROR_INVALID_ARGUMENT);
    CHECK(strcmp(zbiap_error_domain(zbiap_last_error()), "ZBIAPCErrorDomain") == 0);
    CHECK(zbiap_error_code(zbiap_last_error()) == ZBIAP_ERROR_INVALID_ARGUMENT);
    CHECK(strstr(zbiap_error_description(zbiap_last_error()), "past the end") != NULL);
    CHECK(zbiap_manager_destroy(idle) == ZBIAP_OK);
  }

  zbiap_products_free(products);
  CHECK(zbiap_manager_destroy(manager) == ZBIAP_OK);
  CHECK(zbiap_store_destroy(store) == ZBIAP_OK);
  CHECK(zbiap_fetcher_destroy(fetcher) == ZBIAP_OK);
  CHECK(zbiap_simulator_destroy(simulator) == ZBIAP_OK);
  CHECK(zbiap_platform_destroy(platform) == ZBIAP_OK);
  printf(failures ? "capi_flow: %d failure(s)\n" : "capi_flow: passed\n", failures);
  return failures ? 1 : 0;
}
