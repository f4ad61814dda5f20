#include "control_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vesk/host/log.h"

namespace vesk {
namespace camera {

namespace {

constexpr unsigned kAcceptsPerService = 2 * ControlSocket::kMaxClients;

bool FillAddress(const std::string& path, sockaddr_un& address) {
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
  memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

// True when a process accepts connections at the socket file.
bool SomeoneListens(const sockaddr_un& address) {
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  int result = connect(probe, (const sockaddr*)&address, sizeof(address));
  // A listener whose backlog is full still counts: EAGAIN.
  bool live = result == 0 || errno == EAGAIN || errno == EINPROGRESS;
  close(probe);
  return live;
}

bool IsBlank(const std::string& line) {
  for (char c : line)
    if (c != ' ' && c != '\t' && c != '\r') return false;
  return true;
}

}  // namespace

ControlSocket::~ControlSocket() { Close(); }

bool ControlSocket::Open(const std::string& path, std::string& error) {
  Close();
  sockaddr_un address;
  if (!FillAddress(path, address)) {
    error = path + ": a control socket path needs 1 to " + std::to_string(sizeof(address.sun_path) - 1) + " bytes";
    return false;
  }
  struct stat existing;
  if (lstat(path.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) {
      error = path + ": exists and is not a socket";
      return false;
    }
    if (SomeoneListens(address)) {
      error = path + ": another process listens on this socket";
      return false;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      error = path + ": cannot remove the stale socket: " + strerror(errno);
      return false;
    }
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("cannot create the control socket: ") + strerror(errno);
    return false;
  }
  struct stat created;
  if (bind(fd, (const sockaddr*)&address, sizeof(address)) != 0 || listen(fd, (int)kMaxClients) != 0 ||
      stat(path.c_str(), &created) != 0) {
    error = path + ": " + strerror(errno);
    close(fd);
    return false;
  }
  listener_ = fd;
  path_ = path;
  device_ = created.st_dev;
  inode_ = created.st_ino;
  clients_.reserve(kMaxClients);
  return true;
}

void ControlSocket::Close() {
  for (client_t& client : clients_) close(client.fd);
  clients_.clear();
  if (listener_ < 0) return;
  close(listener_);
  listener_ = -1;
  // Only our own socket file: another host may have taken the path since.
  struct stat current;
  if (stat(path_.c_str(), &current) == 0 && current.st_dev == device_ && current.st_ino == inode_)
    unlink(path_.c_str());
  path_.clear();
}

bool ControlSocket::HasCompleteLine(const client_t& client) {
  // Bytes before `scanned` are known to hold none.
  return memchr(client.in.data() + client.scanned, '\n', client.in.size() - client.scanned) != nullptr;
}

void ControlSocket::Service(Handler& handler) {
  if (listener_ < 0) return;
  const size_t count = clients_.size();
  polls_[0] = {listener_, POLLIN, 0};
  for (size_t i = 0; i < count; i++) {
    const client_t& client = clients_[i];
    // A client with a line still waiting for its turn is not read further.
    short events = HasCompleteLine(client) ? 0 : POLLIN;
    if (!client.out.empty()) events |= POLLOUT;
    polls_[i + 1] = {client.fd, events, 0};
  }
  if (poll(polls_, (nfds_t)(count + 1), 0) < 0) return;

  // Clients take turns at being served first, so that one busy client
  // cannot use every pass's budget.
  budget_t budget;
  const size_t first = count > 0 ? nextFirst_ % count : 0;
  nextFirst_ = first + 1;
  for (size_t n = 0; n < count; n++) {
    size_t i = (first + n) % count;
    client_t& client = clients_[i];
    short revents = polls_[i + 1].revents;
    if ((revents & POLLNVAL) != 0) client.failed = true;
    if (!client.failed && !client.hungUp && (revents & (POLLIN | POLLHUP | POLLERR)) != 0 &&
        !HasCompleteLine(client))
      ReadFrom(client);
    if (!client.failed) TakeLines(client, handler, budget);
    if (!client.failed && !client.out.empty()) WriteTo(client);
  }
  // The clients that are gone make room before new ones are counted.
  for (size_t i = 0; i < clients_.size();) {
    client_t& client = clients_[i];
    bool done = client.hungUp && client.out.empty() && !HasCompleteLine(client);
    if (client.failed || done) {
      close(client.fd);
      clients_[i] = std::move(clients_.back());
      clients_.pop_back();
    } else {
      i++;
    }
  }
  if ((polls_[0].revents & POLLIN) != 0) AcceptClients(handler);
}

void ControlSocket::AcceptClients(Handler& handler) {
  for (unsigned n = 0; n < kAcceptsPerService; n++) {
    int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    if (clients_.size() >= kMaxClients) EvictIdleClient(handler);
    if (clients_.size() >= kMaxClients) {
      std::string refusal =
          handler.Refusal("too many control clients (at most " + std::to_string(kMaxClients) + ")") + "\n";
      ssize_t ignored = send(fd, refusal.data(), refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      (void)ignored;
      close(fd);
      continue;
    }
    clients_.emplace_back();
    clients_.back().fd = fd;
    clients_.back().lastActiveMs = nowMs();
  }
}

void ControlSocket::EvictIdleClient(Handler& handler) {
  size_t idlest = clients_.size();
  uint64_t now = nowMs();
  for (size_t i = 0; i < clients_.size(); i++) {
    const client_t& client = clients_[i];
    if (!client.out.empty() || now - client.lastActiveMs < kIdleEvictMs) continue;
    if (idlest == clients_.size() || client.lastActiveMs < clients_[idlest].lastActiveMs) idlest = i;
  }
  if (idlest == clients_.size()) return;
  std::string notice = handler.Refusal("no request for " + std::to_string(kIdleEvictMs / 1000) +
                                       " s while others wait; disconnected") + "\n";
  ssize_t ignored = send(clients_[idlest].fd, notice.data(), notice.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  (void)ignored;
  close(clients_[idlest].fd);
  clients_[idlest] = std::move(clients_.back());
  clients_.pop_back();
}

void ControlSocket::ReadFrom(client_t& client) {
  ssize_t count = recv(client.fd, chunk_, sizeof(chunk_), MSG_DONTWAIT);
  if (count == 0) {
    // A line cut short by the hang-up is never taken.
    client.hungUp = true;
    return;
  }
  if (count < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) client.failed = true;
    return;
  }
  const char* start = chunk_;
  size_t length = (size_t)count;
  if (client.discarding) {
    const char* newline = (const char*)memchr(start, '\n', length);
    if (newline == nullptr) return;  // still inside the refused line
    client.discarding = false;
    length -= (size_t)(newline + 1 - start);
    start = newline + 1;
  }
  client.in.append(start, length);
}

void ControlSocket::TakeLines(client_t& client, Handler& handler, budget_t& budget) {
  // Lines are taken at an offset and the bytes before it dropped once, so a
  // flood of short lines costs one pass over the buffer.
  size_t taken = 0;
  while (budget.requests > 0 && budget.lines > 0) {
    const char* data = client.in.data() + taken;
    size_t scanFrom = client.scanned > taken ? client.scanned - taken : 0;
    size_t available = client.in.size() - taken;
    const char* newline = (const char*)memchr(data + scanFrom, '\n', available - scanFrom);
    if (newline == nullptr) {
      client.in.erase(0, taken);
      client.scanned = client.in.size();
      if (client.in.size() > kMaxLineBytes && !client.hungUp) {
        client.out += handler.Refusal("request line longer than " + std::to_string(kMaxLineBytes) +
                                      " bytes; discarded") + "\n";
        client.in.clear();
        client.scanned = 0;
        client.discarding = true;
      }
      return;
    }
    size_t length = (size_t)(newline - data);
    budget.lines--;
    client.lastActiveMs = nowMs();
    if (length > kMaxLineBytes) {
      client.out += handler.Refusal("request line longer than " + std::to_string(kMaxLineBytes) +
                                    " bytes; discarded") + "\n";
    } else {
      std::string line(data, length);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!IsBlank(line)) {
        client.out += handler.Answer(line);
        client.out += '\n';
        budget.requests--;
      }
    }
    taken += length + 1;
  }
  client.in.erase(0, taken);
  client.scanned = 0;
}

void ControlSocket::WriteTo(client_t& client) {
  while (!client.out.empty()) {
    ssize_t sent = send(client.fd, client.out.data(), client.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) client.failed = true;
      break;
    }
    client.out.erase(0, (size_t)sent);
  }
  if (client.out.size() > kMaxPendingAnswerBytes) client.failed = true;
}

}  // namespace camera
}  // namespace vesk
