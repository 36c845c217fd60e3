// zrx-fetch's built-in file server: answers HTTP GET and HEAD requests for
// the files below one directory on 127.0.0.1, so that a list of stickers and
// its files can be installed without any other server (the sample catalogue
// is served this way).
//
// Threads: created, started and stopped by one thread (zrx-fetch's main
// thread); it serves on a thread of its own, one connection at a time, each
// answered and closed. requestCount() may be read on any thread.
#ifndef ZRX_FETCH_LOOPBACKSERVER_H_
#define ZRX_FETCH_LOOPBACKSERVER_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "Os.h"

class LoopbackServer {
 public:
  // Serves the files below `root`. `bytesPerSecond` > 0 paces every response
  // body to about that rate, so a progress display has something to show;
  // 0 sends as fast as the connection takes it.
  LoopbackServer(std::string root, int64_t bytesPerSecond);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // Listens on 127.0.0.1:`port` (0: a free port the system picks) and starts
  // serving. On failure returns false with a reason in `error`.
  bool start(int port, std::string& error);
  // Ends the connection in progress and the serving thread. Idempotent.
  void stop();

  int port() const { return port_; }
  // "http://127.0.0.1:PORT", without a trailing slash.
  std::string baseUrl() const;
  // Requests answered so far, any status.
  int64_t requestCount() const { return requests_.load(); }

 private:
  void serve();
  void answer(os::Socket connection);
  // Sends all of `data`, pacing it when a rate is set. False when the peer
  // went away or a stop came.
  bool sendAll(os::Socket connection, const char* data, std::size_t size,
               bool paced);
  // Waits until `socket` can be read (or written, with `forWrite`) or a
  // stop comes; false on a stop, an error or after `timeoutMs`.
  bool waitFor(os::Socket socket, bool forWrite, int timeoutMs);

  const std::string root_;
  const int64_t bytesPerSecond_;
  os::Socket listener_ = os::kNoSocket;
  int port_ = 0;
  std::thread thread_;
  // Written by stop() on the owner's thread, read by the serving thread.
  std::atomic<bool> stopping_{false};
  // Written by the serving thread, read anywhere.
  std::atomic<int64_t> requests_{0};
};

#endif  // ZRX_FETCH_LOOPBACKSERVER_H_
