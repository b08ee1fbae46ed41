#!/usr/bin/env python3
"""capi_flow.py STOREKIT_FILE: a host written in Python, through libzbiap.so and ctypes alone.

Runs the demo's flow (start-up, country, catalogue with prices, a purchase, a restore that
brings the account's purchase) against the servers that zbiap_capi_servers started, with the
main queue on the library's own thread and the callbacks waking this one. The library is
$ZBIAP_LIBRARY, else libzbiap.so.1 from the loader's path. Exit 0 when all held.
"""
import ctypes as C
import os
import sys
import threading
import time

lib = C.CDLL(os.environ.get("ZBIAP_LIBRARY", "libzbiap.so.1"))
lib.zbiap_version.restype = C.c_char_p
lib.zbiap_last_error.restype = C.c_void_p
lib.zbiap_error_domain.restype = C.c_char_p
lib.zbiap_error_domain.argtypes = [C.c_void_p]
lib.zbiap_error_description.restype = C.c_char_p
lib.zbiap_error_description.argtypes = [C.c_void_p]

HEADERS_FN = C.CFUNCTYPE(C.c_int, C.c_void_p, C.c_int, C.c_void_p)
SAVE_FN = C.CFUNCTYPE(None, C.c_void_p, C.c_char_p)
READ_FN = C.CFUNCTYPE(C.c_void_p, C.c_void_p)
DONE_FN = C.CFUNCTYPE(None, C.c_void_p, C.c_void_p)
RESTORE_FN = C.CFUNCTYPE(None, C.c_void_p, C.c_int, C.c_void_p)
NOTIFY_FN = C.CFUNCTYPE(None, C.c_void_p, C.c_int)


class PlatformOptions(C.Structure):
    _fields_ = [("bundle_dir", C.c_char_p), ("user_defaults_path", C.c_char_p),
                ("global_queue_threads", C.c_uint)]


class AccountOptions(C.Structure):
    _fields_ = [("base_url", C.c_char_p), ("context", C.c_void_p),
                ("request_headers", HEADERS_FN), ("save_purchases", SAVE_FN),
                ("read_purchases", READ_FN)]


class FetcherOptions(C.Structure):
    _fields_ = [("base_url", C.c_char_p), ("consumer_key", C.c_char_p),
                ("consumer_secret", C.c_char_p), ("signature_key", C.c_char_p),
                ("accept", C.c_char_p)]


class ManagerOptions(C.Structure):
    _fields_ = [("store", C.c_void_p), ("fetcher", C.c_void_p),
                ("country_product", C.c_char_p), ("fallback_country", C.c_char_p)]


OK, NOT_FOUND = 0, 2
READY_STORE_PRODUCTS = 4
PRODUCT_IDENTIFIER, PRODUCT_TITLE, PRODUCT_LOCALIZED_PRICE = 0, 1, 4
NOTIFICATION_PURCHASES = 4
PURCHASE_PRODUCT_ID = 0
RESTORE_FAILED = 0


class ZbiapError(Exception):
    pass


def call(name, *args):
    status = getattr(lib, name)(*args)
    if status != OK:
        error = lib.zbiap_last_error()
        raise ZbiapError(f"{name}: status {status}: {lib.zbiap_error_description(error).decode()}")


def make(name, *args):
    """Calls a zbiap_*_create function and returns the handle it made."""
    handle = C.c_void_p()
    call(name, *args, C.byref(handle))
    return handle


env = {k[len("ZBIAP_TEST_"):].lower(): v.encode() for k, v in os.environ.items()
       if k.startswith("ZBIAP_TEST_")}
woken = threading.Event()
outcomes = {}
kept = C.create_string_buffer(1)


def tell(**news):
    """Records what a callback learned, on the library's thread, and wakes the waiting thread.
    It takes no lock: the library may hold its own while it calls back."""
    outcomes.update(news)
    woken.set()


def wait_for(what, done):
    deadline = time.monotonic() + 20
    while not done():
        if not woken.wait(max(0.0, deadline - time.monotonic())):
            raise ZbiapError(f"no {what} within 20 s")
        woken.clear()


def add_headers(_context, _retrying, headers):
    return lib.zbiap_headers_add(C.c_void_p(headers), b"Authorization",
                                 b"Bearer " + env["account_token"])


def save_purchases(_context, purchases):
    global kept
    kept = C.create_string_buffer(purchases)


def read_purchases(_context):
    return C.cast(kept, C.c_void_p).value if kept.value else None


callbacks = [HEADERS_FN(add_headers), SAVE_FN(save_purchases), READ_FN(read_purchases),
             NOTIFY_FN(lambda _c, which: tell(**{f"notified{which}": True})),
             DONE_FN(lambda _c, error: tell(purchased=not error)),
             RESTORE_FN(lambda _c, result, _e: tell(restored=result))]


def state(manager):
    value = C.c_int()
    call("zbiap_manager_state", manager, C.byref(value))
    return value.value


def purchases(manager):
    snapshot, count, text, ids = C.c_void_p(), C.c_size_t(), C.c_char_p(), []
    call("zbiap_manager_copy_purchases", manager, C.byref(snapshot))
    call("zbiap_purchases_count", snapshot, C.byref(count))
    for i in range(count.value):
        call("zbiap_purchases_text", snapshot, C.c_size_t(i), PURCHASE_PRODUCT_ID, C.byref(text))
        ids.append(text.value.decode())
    lib.zbiap_purchases_free(snapshot)
    return ids


def products(manager):
    snapshot, count, rows = C.c_void_p(), C.c_size_t(), []
    call("zbiap_manager_copy_products", manager, C.byref(snapshot))
    call("zbiap_products_count", snapshot, C.byref(count))
    for i in range(count.value):
        row = []
        for field in (PRODUCT_IDENTIFIER, PRODUCT_TITLE, PRODUCT_LOCALIZED_PRICE):
            text = C.c_char_p()
            call("zbiap_products_text", snapshot, C.c_size_t(i), field, C.byref(text))
            row.append(text.value.decode() if text.value else None)
        rows.append(row)
    lib.zbiap_products_free(snapshot)
    return rows


def main(storekit):
    print("zbiap", lib.zbiap_version().decode())
    bundle = env["bundle"]
    platform = make("zbiap_platform_create",
                    C.byref(PlatformOptions(bundle, bundle + b"/defaults-python.sqlite3", 0)))
    call("zbiap_platform_start_thread", platform)
    simulator = make("zbiap_simulator_create", storekit.encode())
    app_store = make("zbiap_store_create_app_store")
    account_store = make("zbiap_store_create_account_store", C.byref(AccountOptions(
        env["account_url"], None, callbacks[0], callbacks[1], callbacks[2])))
    store = make("zbiap_store_create_compound", (C.c_void_p * 2)(app_store, account_store),
                 C.c_size_t(2))
    fetcher = make("zbiap_fetcher_create", C.byref(FetcherOptions(
        env["catalog_url"], env["consumer_key"], env["consumer_secret"], env["public_key"], None)))
    manager = make("zbiap_manager_create", C.byref(ManagerOptions(
        store, fetcher, b"com.example.app.lifetime", b"US")))
    call("zbiap_manager_set_observer", manager, callbacks[3], None)

    call("zbiap_manager_commit", manager)
    wait_for("catalogue with prices", lambda: state(manager) == READY_STORE_PRODUCTS)
    country = C.c_void_p()
    call("zbiap_manager_country", manager, C.byref(country))
    print("country:", C.string_at(country).decode())
    assert C.string_at(country) == b"US"
    lib.zbiap_free(country)
    catalogue = products(manager)
    for identifier, title, price in catalogue:
        print(f"  {identifier}: {title}, {price}")
    assert len(catalogue) == 4 and all(price.startswith("$") for _, _, price in catalogue)

    call("zbiap_manager_purchase", manager, b"com.example.app.lifetime", callbacks[4], None)
    wait_for("purchase", lambda: "purchased" in outcomes and
             "com.example.app.lifetime" in purchases(manager))
    assert outcomes["purchased"] and outcomes.get(f"notified{NOTIFICATION_PURCHASES}")
    print("purchased com.example.app.lifetime")
    call("zbiap_manager_restore", manager, callbacks[5], None)
    account_product = env["account_product"].decode()
    wait_for("restore", lambda: "restored" in outcomes and
             account_product in purchases(manager))
    assert outcomes["restored"] != RESTORE_FAILED and kept.value
    print("restored:", account_product)

    status = lib.zbiap_manager_purchase(manager, b"com.example.none", callbacks[4], None)
    error = lib.zbiap_last_error()
    assert status == NOT_FOUND and lib.zbiap_error_domain(error) == b"ZBIAPCErrorDomain"

    call("zbiap_platform_stop_thread", platform)
    for name, handle in (("manager", manager), ("store", store), ("store", account_store),
                         ("store", app_store), ("fetcher", fetcher), ("simulator", simulator),
                         ("platform", platform)):
        call(f"zbiap_{name}_destroy", handle)
    print("capi_flow.py: passed")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: capi_flow.py STOREKIT_FILE")
    try:
        main(sys.argv[1])
    except (ZbiapError, AssertionError, KeyError) as failure:
        sys.exit(f"capi_flow.py: failed: {failure!r}")
