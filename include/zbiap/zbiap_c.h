/* zbiap_c.h: the C API of libzbiap.so, for hosts written in C or in any language that can call
   C (C#, Swift, Kotlin, Python's ctypes, game engines' scripting languages).

   A host makes, in this order, the platform (its bundle directory and user defaults file; one
   per process), on Linux the StoreKit simulator, the stores, the catalogue fetcher and the
   manager; it runs the main queue, either from its own loop (poll zbiap_platform_wakeup_fd()
   and wait at most zbiap_platform_next_due(), then call zbiap_platform_drain()) or on a thread
   of the library's (zbiap_platform_start_thread()). It destroys them in the reverse order.

   Errors: every function that can fail returns a zbiap_status. On failure the calling thread's
   zbiap_last_error() describes it (domain, code, description with the underlying error); the
   C API's own errors have the domain "ZBIAPCErrorDomain" and the status as code. Null handles,
   null or bad options, indexes out of range, unknown identifiers and calls in the wrong state
   are errors, never crashes.

   Ownership: a handle made by zbiap_X_create() belongs to the host until zbiap_X_destroy().
   Options are read during the call only. A handle given to another object (a store to the
   manager) may be destroyed at once: the object keeps what it needs. A string returned through
   `char**` belongs to the host and is freed with zbiap_free(); a `const char*` belongs to the
   object it came from and lives as long as that object.

   Threads: callbacks (completions, notifications) run on the main-queue thread: the thread that
   calls zbiap_platform_drain() / zbiap_platform_run_for(), or the platform's own thread. The
   account store's callbacks run on the thread that restores. The getters may be called from
   any thread; make and destroy objects on one thread. A callback may call back into the API
   except to destroy the object it belongs to; it may run while the library holds a lock, so it
   must not wait for another thread that calls the API. */
#ifndef ZBIAP_ZBIAP_C_H_
#define ZBIAP_ZBIAP_C_H_

#include <stddef.h>
#include <stdint.h>

#include "zbiap/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status and errors ------------------------------------------------------------------- */

typedef enum zbiap_status {
  ZBIAP_OK = 0,
  ZBIAP_ERROR_INVALID_ARGUMENT = 1, /* a null handle or pointer, a bad option, a bad index */
  ZBIAP_ERROR_NOT_FOUND = 2,        /* an unknown product identifier */
  ZBIAP_ERROR_WRONG_STATE = 3,      /* not now: no platform yet, still in use, not ready */
  ZBIAP_ERROR_FAILED = 4            /* the library failed; zbiap_last_error() says why */
} zbiap_status;

typedef struct zbiap_error zbiap_error;

/* The calling thread's last failure; NULL before any. Owned by the library, valid until the
   next failing call on this thread. */
ZBIAP_EXPORT const zbiap_error* zbiap_last_error(void);
/* The error's domain ("ZBIAPStoreErrorDomain"); NULL for a NULL error. Owned by the error. */
ZBIAP_EXPORT const char* zbiap_error_domain(const zbiap_error* error);
/* The error's code; 0 for a NULL error. */
ZBIAP_EXPORT int64_t zbiap_error_code(const zbiap_error* error);
/* The whole description: domain, code, message and underlying error. Owned by the error. */
ZBIAP_EXPORT const char* zbiap_error_description(const zbiap_error* error);
/* The error this one wraps, or NULL. Owned by (and lives as long as) `error`. */
ZBIAP_EXPORT const zbiap_error* zbiap_error_underlying(const zbiap_error* error);

/* Frees a string the library returned through a `char**`. NULL is ignored. */
ZBIAP_EXPORT void zbiap_free(void* memory);
/* The library's version ("1.0.0"). Static. */
ZBIAP_EXPORT const char* zbiap_version(void);

/* ---- Platform and main queue ------------------------------------------------------------- */

typedef struct zbiap_platform zbiap_platform;

typedef struct zbiap_platform_options {
  const char* bundle_dir;         /* the app bundle (Info.json, resources); NULL: the default */
  const char* user_defaults_path; /* the user defaults file; NULL: the default */
  unsigned global_queue_threads;  /* 0: 2 */
} zbiap_platform_options;

/* Makes the process's platform (options may be NULL for the defaults) and installs it. One at a
   time: WRONG_STATE while another exists. Free with zbiap_platform_destroy(). */
ZBIAP_EXPORT int zbiap_platform_create(const zbiap_platform_options* options, zbiap_platform** out);
/* Stops its thread, runs what is due and uninstalls it. WRONG_STATE (nothing done) while a
   simulator, store, fetcher or manager still exists. */
ZBIAP_EXPORT int zbiap_platform_destroy(zbiap_platform* platform);
/* A file descriptor that turns readable when work is posted; the host polls it. -1 if none. */
ZBIAP_EXPORT int zbiap_platform_wakeup_fd(zbiap_platform* platform, int* fd);
/* Runs the tasks that are due now, on the calling thread; `ran` (may be NULL) gets their number.
   WRONG_STATE while the platform's own thread runs the queue, as for zbiap_platform_run_for(). */
ZBIAP_EXPORT int zbiap_platform_drain(zbiap_platform* platform, size_t* ran);
/* Milliseconds until the next timer is due: 0 when something is due, -1 when nothing waits. */
ZBIAP_EXPORT int zbiap_platform_next_due(zbiap_platform* platform, int64_t* milliseconds);
/* Runs the main queue on the calling thread for `milliseconds`. */
ZBIAP_EXPORT int zbiap_platform_run_for(zbiap_platform* platform, int64_t milliseconds);
/* Runs the main queue on a thread of its own until zbiap_platform_stop_thread(); callbacks then
   arrive on that thread. Stop it before destroying the objects. WRONG_STATE when it runs
   already. */
ZBIAP_EXPORT int zbiap_platform_start_thread(zbiap_platform* platform);
ZBIAP_EXPORT int zbiap_platform_stop_thread(zbiap_platform* platform);

/* ---- StoreKit simulator (Linux) ---------------------------------------------------------- */

typedef struct zbiap_simulator zbiap_simulator;

/* Reads a .storekit configuration file and installs the simulator that the App Store store
   then sells through. Needs the platform. Free with zbiap_simulator_destroy(). */
ZBIAP_EXPORT int zbiap_simulator_create(const char* storekit_path, zbiap_simulator** out);
/* WRONG_STATE (nothing done) while a store or manager still exists. */
ZBIAP_EXPORT int zbiap_simulator_destroy(zbiap_simulator* simulator);

/* ---- Stores ------------------------------------------------------------------------------ */

typedef struct zbiap_store zbiap_store;
typedef struct zbiap_headers zbiap_headers;

/* Adds a header field to a request of the account store; only inside request_headers. */
ZBIAP_EXPORT int zbiap_headers_add(zbiap_headers* headers, const char* name, const char* value);

typedef struct zbiap_account_store_options {
  const char* base_url; /* the account server's API root ("https://host/api/"); required */
  void* context;        /* given to the callbacks */
  /* Adds the headers of the next request (sign-in token) with zbiap_headers_add(); is_retrying
     is 1 after the server refused the last one (401). Nonzero refuses the request. NULL: no
     headers. */
  int (*request_headers)(void* context, int is_retrying, zbiap_headers* headers);
  /* Keep this text (the account's purchases, JSON) for read_purchases. NULL: not kept. */
  void (*save_purchases)(void* context, const char* purchases);
  /* The text last given to save_purchases, or NULL; copied at once. NULL: nothing kept. */
  const char* (*read_purchases)(void* context);
} zbiap_account_store_options;

/* The App Store store (on Linux, the simulator's). Needs the platform. Free with
   zbiap_store_destroy(), as every store. */
ZBIAP_EXPORT int zbiap_store_create_app_store(zbiap_store** out);
/* The account store: purchases held by the user's account on the vendor's server. */
ZBIAP_EXPORT int zbiap_store_create_account_store(const zbiap_account_store_options* options,
                                                  zbiap_store** out);
/* `count` stores acting as one (the first one's country; the first that sells a product sells
   it). The stores may be destroyed afterwards. */
ZBIAP_EXPORT int zbiap_store_create_compound(zbiap_store* const* stores, size_t count,
                                             zbiap_store** out);
ZBIAP_EXPORT int zbiap_store_destroy(zbiap_store* store);

/* ---- Catalogue fetcher ------------------------------------------------------------------- */

typedef struct zbiap_fetcher zbiap_fetcher;

typedef struct zbiap_fetcher_options {
  const char* base_url;        /* the catalogue server; required */
  const char* consumer_key;    /* OAuth 1.0 consumer key; required */
  const char* consumer_secret; /* OAuth 1.0 consumer secret; NULL: empty */
  const char* signature_key;   /* base64 PKCS #1 RSA key that signs answers; NULL: unchecked */
  const char* accept;          /* Accept header; NULL: "application/json" */
} zbiap_fetcher_options;

/* The fetcher of the catalogue. INVALID_ARGUMENT for a signature key that is no such key. Free
   with zbiap_fetcher_destroy(). */
ZBIAP_EXPORT int zbiap_fetcher_create(const zbiap_fetcher_options* options, zbiap_fetcher** out);
ZBIAP_EXPORT int zbiap_fetcher_destroy(zbiap_fetcher* fetcher);

/* ---- Manager ----------------------------------------------------------------------------- */

typedef struct zbiap_manager zbiap_manager;
typedef struct zbiap_products zbiap_products;
typedef struct zbiap_purchases zbiap_purchases;

typedef struct zbiap_manager_options {
  zbiap_store* store;           /* required */
  zbiap_fetcher* fetcher;       /* required */
  const char* country_product;  /* the product through which the store learns its country */
  const char* fallback_country; /* "US"; required */
} zbiap_manager_options;

/* The manager's states. */
enum {
  ZBIAP_STATE_NOT_CONFIGURED = 0,
  ZBIAP_STATE_CONFIGURING = 1,
  ZBIAP_STATE_READY_NO_PRODUCTS = 2,
  ZBIAP_STATE_READY_PRODUCTS = 3,      /* a catalogue, no store products yet */
  ZBIAP_STATE_READY_STORE_PRODUCTS = 4 /* a catalogue with prices */
};

/* The manager's notifications. */
enum {
  ZBIAP_NOTIFICATION_STATE = 1,    /* the state changed */
  ZBIAP_NOTIFICATION_READY = 2,    /* the manager became ready */
  ZBIAP_NOTIFICATION_PRODUCTS = 3, /* the catalogue changed */
  ZBIAP_NOTIFICATION_PURCHASES = 4 /* the store's purchases changed */
};

/* The outcomes of a restore. */
enum { ZBIAP_RESTORE_FAILED = 0, ZBIAP_RESTORE_CHANGED = 1, ZBIAP_RESTORE_UNCHANGED = 2 };

/* `error` is NULL on success; it lives until the callback returns. */
typedef void (*zbiap_done_fn)(void* context, const zbiap_error* error);
typedef void (*zbiap_restore_fn)(void* context, int result, const zbiap_error* error);
typedef void (*zbiap_notification_fn)(void* context, int notification);

/* A manager over the options' store and fetcher, which it keeps. Nothing starts before
   zbiap_manager_commit(). Free with zbiap_manager_destroy(). */
ZBIAP_EXPORT int zbiap_manager_create(const zbiap_manager_options* options, zbiap_manager** out);
/* Frees the handle; callbacks of requests still in flight are dropped. */
ZBIAP_EXPORT int zbiap_manager_destroy(zbiap_manager* manager);
/* Starts it: saved catalogue, country, catalogue query. */
ZBIAP_EXPORT int zbiap_manager_commit(zbiap_manager* manager);
/* Calls `callback` with each notification (on the main-queue thread); NULL removes it. */
ZBIAP_EXPORT int zbiap_manager_set_observer(zbiap_manager* manager, zbiap_notification_fn callback,
                                            void* context);
/* One of ZBIAP_STATE_*. */
ZBIAP_EXPORT int zbiap_manager_state(zbiap_manager* manager, int* state);
/* The App Store country ("US"), or NULL while unknown. Free with zbiap_free(). */
ZBIAP_EXPORT int zbiap_manager_country(zbiap_manager* manager, char** country);
/* A snapshot of the catalogue. Free with zbiap_products_free(). */
ZBIAP_EXPORT int zbiap_manager_copy_products(zbiap_manager* manager, zbiap_products** out);
/* A snapshot of the purchases. Free with zbiap_purchases_free(). */
ZBIAP_EXPORT int zbiap_manager_copy_purchases(zbiap_manager* manager, zbiap_purchases** out);

/* The requests. A failure found at once is returned and `callback` is not called; otherwise
   `callback` (may be NULL) is called once, later, on the main-queue thread. */
/* Buys the catalogue product `product_id`: NOT_FOUND when it is not in the catalogue,
   WRONG_STATE while it has no store product. */
ZBIAP_EXPORT int zbiap_manager_purchase(zbiap_manager* manager, const char* product_id,
                                        zbiap_done_fn callback, void* context);
/* Restores earlier purchases from every store. */
ZBIAP_EXPORT int zbiap_manager_restore(zbiap_manager* manager, zbiap_restore_fn callback,
                                       void* context);
/* Refreshes the App Store receipt. */
ZBIAP_EXPORT int zbiap_manager_refresh_receipt(zbiap_manager* manager, zbiap_done_fn callback,
                                               void* context);
/* Asks the catalogue server again; WRONG_STATE before the manager is ready. */
ZBIAP_EXPORT int zbiap_manager_refresh_products(zbiap_manager* manager, zbiap_done_fn callback,
                                                void* context);

/* ---- Catalogue snapshot ------------------------------------------------------------------ */

enum {
  ZBIAP_PRODUCT_IDENTIFIER = 0,
  ZBIAP_PRODUCT_TITLE = 1, /* in the user's language */
  ZBIAP_PRODUCT_SUBTITLE = 2,
  ZBIAP_PRODUCT_DESCRIPTION = 3,
  ZBIAP_PRODUCT_LOCALIZED_PRICE = 4, /* "$9.99"; needs a store product */
  ZBIAP_PRODUCT_LOCALIZED_OLD_PRICE = 5,
  ZBIAP_PRODUCT_PRICE = 6, /* "9.99"; needs a store product */
  ZBIAP_PRODUCT_OLD_PRICE = 7
};
enum { ZBIAP_PRODUCT_TITLE_COLOR = 0, ZBIAP_PRODUCT_BACKGROUND_COLOR = 1 };
enum {
  ZBIAP_PRODUCT_ACTIVE = 0,
  ZBIAP_PRODUCT_DEFAULT_VISIBLE = 1,
  ZBIAP_PRODUCT_REQUIRES_ACCOUNT = 2,
  ZBIAP_PRODUCT_HAS_STORE_PRODUCT = 3
};

ZBIAP_EXPORT int zbiap_products_count(const zbiap_products* products, size_t* count);
/* One ZBIAP_PRODUCT_* text of product `index`; NULL when the product has none. Owned by the
   snapshot. */
ZBIAP_EXPORT int zbiap_products_text(const zbiap_products* products, size_t index, int field,
                                     const char** text);
/* A colour as red, green, blue, alpha from 0 to 1; `present` is 0 (rgba untouched) when the
   product has none. */
ZBIAP_EXPORT int zbiap_products_color(const zbiap_products* products, size_t index, int which,
                                      double rgba[4], int* present);
/* One ZBIAP_PRODUCT_* flag (0 or 1). */
ZBIAP_EXPORT int zbiap_products_flag(const zbiap_products* products, size_t index, int flag,
                                     int* value);
/* The product's features (identifiers, sorted). Owned by the snapshot. */
ZBIAP_EXPORT int zbiap_products_feature_count(const zbiap_products* products, size_t index,
                                              size_t* count);
ZBIAP_EXPORT int zbiap_products_feature(const zbiap_products* products, size_t index,
                                        size_t feature, const char** identifier);
ZBIAP_EXPORT void zbiap_products_free(zbiap_products* products);

/* ---- Purchases snapshot ------------------------------------------------------------------ */

enum {
  ZBIAP_PURCHASE_PRODUCT_ID = 0,
  ZBIAP_PURCHASE_TRANSACTION_ID = 1,
  ZBIAP_PURCHASE_ORIGINAL_TRANSACTION_ID = 2,
  ZBIAP_PURCHASE_DATE = 3, /* RFC 3339 with the local offset ("...T10:20:30+01:00") */
  ZBIAP_PURCHASE_ORIGINAL_DATE = 4,
  ZBIAP_PURCHASE_EXPIRATION_DATE = 5,
  ZBIAP_PURCHASE_CANCELLATION_DATE = 6
};

ZBIAP_EXPORT int zbiap_purchases_count(const zbiap_purchases* purchases, size_t* count);
/* One ZBIAP_PURCHASE_* text of purchase `index`; NULL when absent. Owned by the snapshot. */
ZBIAP_EXPORT int zbiap_purchases_text(const zbiap_purchases* purchases, size_t index, int field,
                                      const char** text);
ZBIAP_EXPORT int zbiap_purchases_quantity(const zbiap_purchases* purchases, size_t index,
                                          int64_t* quantity);
ZBIAP_EXPORT void zbiap_purchases_free(zbiap_purchases* purchases);

#ifdef __cplusplus
}
#endif

#endif /* ZBIAP_ZBIAP_C_H_ */
