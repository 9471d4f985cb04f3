#ifndef NIMBRA_WIN_CF_PENDING_REQUESTS_H_
#define NIMBRA_WIN_CF_PENDING_REQUESTS_H_

#include <windows.h>

#include <list>
#include <mutex>

namespace corvdrive::cloud_filter {

// Keeps the records of requests that may outlast the call that made them. The platform writes into
// a record when its request completes, at any time and whatever became of the placeholder object by
// then, so a record belongs to the process and goes only once its request is seen to be complete.
class PendingRequests {
 public:
  // The process's own; it is never destroyed, as requests may complete during shutdown.
  static PendingRequests& Instance();

  // A zeroed record for a new request. Frees the records of requests that completed meanwhile.
  OVERLAPPED* Add();
  // The platform goes on with this record by itself.
  void LeavePending(const OVERLAPPED* record);
  // The request was waited for: frees the record unless the platform still holds it.
  void Settle(OVERLAPPED* record);
  // The request of this record is over: frees the record.
  void Remove(const OVERLAPPED* record);

 private:
  struct Entry {
    OVERLAPPED record{};
    // The platform holds the record; before that its status says nothing.
    bool pending = false;
  };

  std::mutex mutex_;
  std::list<Entry> entries_;
};

}  // namespace corvdrive::cloud_filter

#endif
