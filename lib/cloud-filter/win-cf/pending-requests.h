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
  struct Entry {
    OVERLAPPED record{};
    // The platform holds the record; before that its status says nothing.
    bool pending = false;
  };
  using Request = std::list<Entry>::iterator;

  // The process's own; it is never destroyed, as requests may complete during shutdown.
  static PendingRequests& Instance();

  // A new request with a zeroed record. Looks through some of the older ones and frees those that
  // completed meanwhile.
  Request Add();
  // The following end the use of a request by its caller.
  //
  // The platform goes on with the record by itself.
  void LeavePending(Request request);
  // The request was waited for: frees the record unless the platform still holds it.
  void Settle(Request request);
  // The request is over: frees the record.
  void Remove(Request request);

 private:
  void FreeSomeCompleted();

  std::mutex mutex_;
  std::list<Entry> entries_;
};

}  // namespace corvdrive::cloud_filter

#endif
