// The C API's errors, its memory and version functions, and the shared helpers of handles.h.
#include <cstdlib>

#include "capi/handles.h"
#include "zbiap/platform/platform.h"

zbiap_error::zbiap_error(ZBIAPErrorPtr e)
    : error(std::move(e)), description(error ? error->description() : std::string()) {
  if (error && error->underlyingError()) {
    underlying = std::make_unique<zbiap_error>(error->underlyingError());
  }
}

namespace zbiap::capi {
namespace {

std::unique_ptr<zbiap_error>& lastError() {
  thread_local std::unique_ptr<zbiap_error> error;
  return error;
}

// A store's completion may report failure without an error; the host still gets one.
ZBIAPErrorPtr orGeneric(ZBIAPErrorPtr error) {
  if (error) return error;
  return ZBIAPError::make(kErrorDomain, ZBIAP_ERROR_FAILED,
                          {{kNSLocalizedDescriptionKey, Value("the request failed")}});
}

}  // namespace

int failWith(const ZBIAPErrorPtr& error) {
  lastError() = std::make_unique<zbiap_error>(orGeneric(error));
  return ZBIAP_ERROR_FAILED;
}

int fail(int status, const std::string& message) {
  lastError() = std::make_unique<zbiap_error>(
      ZBIAPError::make(kErrorDomain, status, {{kNSLocalizedDescriptionKey, Value(message)}}));
  return status;
}

int nullArgument(const char* name) {
  return fail(ZBIAP_ERROR_INVALID_ARGUMENT, std::string(name) + " is null");
}

std::atomic<int>& liveObjects() {
  static std::atomic<int> count{0};
  return count;
}

void deliverOnMainQueue(std::shared_ptr<CallbackGate> gate, std::function<void()> deliver) {
  Platform::current().mainQueue().post([gate = std::move(gate), deliver = std::move(deliver)] {
    std::lock_guard lock(gate->mutex);
    if (gate->open) deliver();
  });
}

void Outcome::complete(bool failed, ZBIAPErrorPtr error,
                       std::function<void(const zbiap_error*)> deliver) {
  {
    std::lock_guard lock(mutex_);
    if (failed && !returned_) {
      failedEarly_ = true;
      error_ = std::move(error);
      return;
    }
  }
  deliverOnMainQueue(gate_, [failed, error = std::move(error), deliver = std::move(deliver)] {
    if (!failed) return deliver(nullptr);
    zbiap_error wrapped(orGeneric(error));
    deliver(&wrapped);
  });
}

int Outcome::returned() {
  std::lock_guard lock(mutex_);
  returned_ = true;
  return failedEarly_ ? failWith(error_) : ZBIAP_OK;
}

}  // namespace zbiap::capi

extern "C" {

const zbiap_error* zbiap_last_error(void) { return zbiap::capi::lastError().get(); }

const char* zbiap_error_domain(const zbiap_error* error) {
  return error && error->error ? error->error->domain().c_str() : nullptr;
}

int64_t zbiap_error_code(const zbiap_error* error) {
  return error && error->error ? error->error->code() : 0;
}

const char* zbiap_error_description(const zbiap_error* error) {
  return error ? error->description.c_str() : nullptr;
}

const zbiap_error* zbiap_error_underlying(const zbiap_error* error) {
  return error ? error->underlying.get() : nullptr;
}

void zbiap_free(void* memory) { std::free(memory); }

const char* zbiap_version(void) { return ZBIAP_VERSION_TEXT; }

}  // extern "C"
