// The host's control socket: a Unix stream socket that takes one request per
// line and gives one answer line per request. It only moves bytes and cuts
// lines; what a request means is the handler's business. Everything runs on
// the thread that calls Service() (the pump thread): the sockets are
// non-blocking and polled with a zero time-out, so a pass never waits here.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vesk {
namespace camera {

class ControlSocket {
 public:
  // A line longer than this (without its newline) is refused and discarded.
  static constexpr size_t kMaxLineBytes = 1024 * 1024;
  // Clients connected at once; one more is told so and disconnected.
  static constexpr unsigned kMaxClients = 8;
  // Requests answered per Service() call, over all clients; the rest wait
  // for the next call.
  static constexpr unsigned kRequestsPerService = 8;
  // Lines (blank ones too) taken per Service() call, over all clients.
  static constexpr unsigned kLinesPerService = 1024;
  // When every slot is taken, a client silent for this long makes room for
  // a new one.
  static constexpr uint64_t kIdleEvictMs = 10000;
  // Answers a client leaves unread beyond this make it be dropped.
  static constexpr size_t kMaxPendingAnswerBytes = 4 * 1024 * 1024;

  // Turns one request line (without its newline) into one answer line
  // (without its newline).
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual std::string Answer(const std::string& line) = 0;
    // The answer to a condition found by the socket itself (a line too long,
    // too many clients).
    virtual std::string Refusal(const std::string& error) = 0;
  };

  ControlSocket() = default;
  ~ControlSocket();  // Close()
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // Listens at path. A socket file left there by a process that is gone is
  // replaced; a live socket or a file of another kind is left alone and
  // makes Open fail. False with a one-line reason.
  bool Open(const std::string& path, std::string& error);
  bool IsOpen() const { return listener_ >= 0; }
  // Accepts, reads, answers complete lines through handler, writes what the
  // clients can take, drops clients that hung up or failed. Never blocks.
  void Service(Handler& handler);
  // Disconnects every client, closes the listener and removes the socket
  // file (when it is still the one this object created).
  void Close();
  unsigned Clients() const { return (unsigned)clients_.size(); }

 private:
  struct client_t {
    int fd = -1;
    std::string in;       // bytes received and not yet taken as lines
    size_t scanned = 0;   // bytes of `in` known to hold no newline
    std::string out;      // answer bytes not yet sent
    bool discarding = false;  // inside a line that was refused for its length
    bool hungUp = false;      // the client sent its last byte
    bool failed = false;      // drop at once
    uint64_t lastActiveMs = 0;  // connection or last complete line
  };
  struct budget_t {
    unsigned requests = kRequestsPerService;
    unsigned lines = kLinesPerService;
  };

  void AcceptClients(Handler& handler);
  void EvictIdleClient(Handler& handler);
  void ReadFrom(client_t& client);
  // Takes complete lines from client.in while budget lasts.
  void TakeLines(client_t& client, Handler& handler, budget_t& budget);
  void WriteTo(client_t& client);
  static bool HasCompleteLine(const client_t& client);

  int listener_ = -1;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::vector<client_t> clients_;
  size_t nextFirst_ = 0;  // the client served first next time (turns rotate)
  pollfd polls_[kMaxClients + 1];
  char chunk_[65536];
};

}  // namespace camera
}  // namespace vesk
