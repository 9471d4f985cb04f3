#ifndef NIMBRA_TESTS_E2E_FETCH_SERVER_H_
#define NIMBRA_TESTS_E2E_FETCH_SERVER_H_

#include <nimbra/nimbra.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command-loop.h"

namespace e2e {

// How fetches are answered. The defaults are those of a well-behaved client.
struct ServeRules {
  std::string source;                        // folder that holds each file under its identity
  std::int64_t pieceSize = 4 << 20;          // of one transfer
  std::int64_t delayMs = 0;                  // before each transfer
  std::int64_t failStatus = 0;               // answers with this status instead of data ...
  std::int64_t failCount = INT64_MAX;        // ... this many times, then as usual
  std::int64_t stopAfterBytes = INT64_MAX;   // of all files together, then falls silent
  std::int64_t crashAtTransfer = INT64_MAX;  // ends the process in place of that transfer
  std::int64_t threads = 1;                  // that share the pieces of one fetch
  bool reverse = false;                      // last piece first
  bool heedCancel = true;
  bool reportProgress = false;

  void Change(const Fields& command);
};

// What a fetch record said, copied, since the record is gone once the callback has returned.
struct Fetch {
  std::int64_t transferKey = 0;
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::string identity;
};

class FetchServer {
 public:
  explicit FetchServer(CORVWinCFSyncRootHandle root) : root_(root) {}

  void ChangeRules(const Fields& command);
  // Has the file with this identity served from this path instead of the source folder.
  void SetContent(const std::string& identity, const std::string& path);
  // Returns at once; the answer is given from other threads.
  void Serve(Fetch fetch);
  void Cancel(std::int64_t transferKey, std::int64_t offset, std::int64_t length);

 private:
  struct Piece {
    std::int64_t offset;
    std::int64_t length;
  };
  struct Job {
    Fetch fetch;
    ServeRules rules;
    std::string path;
    std::vector<Piece> pieces;
    std::atomic<std::size_t> next = 0;
    std::atomic<bool> stopped = false;
  };

  std::shared_ptr<Job> MakeJob(Fetch fetch);
  void Run(const std::shared_ptr<Job>& job);
  void SendPieces(Job& job);
  bool SendPiece(Job& job, const Piece& piece);
  std::int32_t Send(const Fetch& fetch, const void* data, const Piece& piece, std::uint32_t status);

  CORVWinCFSyncRootHandle root_;
  std::mutex mutex_;  // guards what follows
  ServeRules rules_;
  std::map<std::string, std::string> contents_;
  std::list<std::weak_ptr<Job>> jobs_;
};

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_FETCH_SERVER_H_
