// The platform's IPC singleton. In this process it delivers every broadcast to
// the listeners a host registered, synchronously and in the order sent.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "vesk/variant/variant.h"

namespace vesk {
namespace ipc {

class Ipc {
 public:
  typedef std::function<void(const vesk::variant::Variant& message)> Listener;

  static Ipc& GetInstance();

  // Publishes a request message (any message container) to every listener.
  bool BroadcastRequest(vesk::variant::Variant& message);

  // Returns an id for RemoveListener.
  int AddListener(Listener listener);
  void RemoveListener(int id);

 private:
  Ipc() = default;
  std::mutex mutex_;
  // Held while delivering, so that broadcasts from several threads arrive whole and in order.
  std::recursive_mutex deliveryMutex_;
  int nextId_ = 1;
  std::vector<std::pair<int, Listener>> listeners_;
};

}  // namespace ipc
}  // namespace vesk
