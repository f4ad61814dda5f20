#include "vesk/ipc/ipc.h"

namespace vesk {
namespace ipc {

Ipc& Ipc::GetInstance() {
  static Ipc instance;
  return instance;
}

bool Ipc::BroadcastRequest(vesk::variant::Variant& message) {
  // Copy the listeners so that a listener may add or remove listeners.
  std::vector<std::pair<int, Listener>> listeners;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    listeners = listeners_;
  }
  std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
  for (auto& entry : listeners) entry.second(message);
  return true;
}

int Ipc::AddListener(Listener listener) {
  std::lock_guard<std::mutex> lock(mutex_);
  int id = nextId_++;
  listeners_.emplace_back(id, std::move(listener));
  return id;
}

void Ipc::RemoveListener(int id) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = listeners_.begin(); it != listeners_.end(); ++it) {
    if (it->first == id) {
      listeners_.erase(it);
      return;
    }
  }
}

}  // namespace ipc
}  // namespace vesk
