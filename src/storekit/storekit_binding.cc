#include "zbiap/storekit/storekit_binding.h"

#include <mutex>
#include <utility>

#include "zbiap/storekit/storekit_simulator.h"

namespace zbiap {
namespace {

std::mutex gBindingMutex;
std::shared_ptr<StoreKitBinding> gBinding;

}  // namespace

std::shared_ptr<StoreKitBinding> StoreKitBinding::current() {
  std::lock_guard<std::mutex> lock(gBindingMutex);
  if (!gBinding) gBinding = StoreKitSimulator::create(StoreKitConfiguration());
  return gBinding;
}

std::shared_ptr<StoreKitBinding> StoreKitBinding::install(
    std::shared_ptr<StoreKitBinding> binding) {
  std::lock_guard<std::mutex> lock(gBindingMutex);
  return std::exchange(gBinding, std::move(binding));
}

}  // namespace zbiap
