#ifndef NIMBRA_NIMBRACTL_PROGRESS_H_
#define NIMBRA_NIMBRACTL_PROGRESS_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace nimbractl {

// A bar on the error stream that shows how much of some files' data has arrived. It looks at the
// file that is being fetched by itself, so that a large one moves it too.
class ProgressBar {
 public:
  // `isShown`: otherwise it does nothing.
  ProgressBar(std::int64_t totalBytes, std::int64_t totalFiles, bool isShown);
  // Removes the bar.
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void Begin(const std::wstring& path, std::int64_t size);
  void End();
  // Ends a file that does not count, and makes room for saying so; the bar comes back below that.
  void Fail();

 private:
  void Run(const std::stop_token& stop);
  void Draw();
  void Erase();

  const std::int64_t totalBytes_, totalFiles_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable_any changed_;
  std::int64_t doneBytes_ = 0, doneFiles_ = 0;
  std::wstring current_;
  std::int64_t currentSize_ = 0;
  std::size_t width_ = 0;  // of what is drawn
  std::jthread thread_;    // the last member: uses the others
};

}  // namespace nimbractl

#endif
