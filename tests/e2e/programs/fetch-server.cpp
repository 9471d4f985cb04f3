#include "fetch-server.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <span>
#include <thread>
#include <utility>

#include "background.h"
#include "file-access.h"

namespace e2e {
namespace {

std::atomic<std::int64_t> transferCount = 0;

}  // namespace

void ServeRules::Change(const Fields& command) {
  source = command.Text("source", source);
  pieceSize = command.Number("pieceSize", pieceSize);
  delayMs = command.Number("delayMs", delayMs);
  failStatus = command.Number("failStatus", failStatus);
  failCount = command.Number("failCount", failCount);
  stopAfterBytes = command.Number("stopAfterBytes", stopAfterBytes);
  if (command.Has("crashAtTransfer")) {
    crashAtTransfer = command.Number("crashAtTransfer");
    transferCount = 0;
  }
  threads = command.Number("threads", threads);
  reverse = command.Number("reverse", reverse) != 0;
  heedCancel = command.Number("heedCancel", heedCancel) != 0;
  reportProgress = command.Number("reportProgress", reportProgress) != 0;
}

void FetchServer::ChangeRules(const Fields& command) {
  const std::lock_guard lock(mutex_);
  if (command.Number("defaults", 0) != 0) rules_ = ServeRules{.source = rules_.source};
  rules_.Change(command);
}

void FetchServer::SetContent(const std::string& identity, const std::string& path) {
  const std::lock_guard lock(mutex_);
  contents_[identity] = path;
}

std::shared_ptr<FetchServer::Job> FetchServer::MakeJob(Fetch fetch) {
  auto job = std::make_shared<Job>();
  const std::lock_guard lock(mutex_);
  const auto content = contents_.find(fetch.identity);
  job->path = content != contents_.end() ? content->second : rules_.source + '\\' + fetch.identity;
  job->rules = rules_;
  if (rules_.failStatus != 0 && rules_.failCount-- <= 0) job->rules.failStatus = 0;
  job->fetch = std::move(fetch);
  const auto limit = std::min(job->fetch.length, rules_.stopAfterBytes);
  rules_.stopAfterBytes -= limit;
  for (std::int64_t done = 0; done < limit; done += rules_.pieceSize) {
    job->pieces.push_back(
        {job->fetch.offset + done, std::min(rules_.pieceSize, job->fetch.length - done)});
  }
  if (rules_.reverse) std::ranges::reverse(job->pieces);
  jobs_.remove_if([](const auto& known) { return known.expired(); });
  jobs_.push_back(job);
  return job;
}

void FetchServer::Serve(Fetch fetch) {
  RunInBackground([this, job = MakeJob(std::move(fetch))] { Run(job); });
}

void FetchServer::Run(const std::shared_ptr<Job>& job) {
  if (job->rules.failStatus != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(job->rules.delayMs));
    Send(job->fetch, nullptr, {job->fetch.offset, job->fetch.length},
         static_cast<std::uint32_t>(job->rules.failStatus));
    return;
  }
  std::vector<std::jthread> helpers;
  for (std::int64_t count = 1; count < job->rules.threads; ++count) {
    helpers.emplace_back([this, job] { SendPieces(*job); });
  }
  SendPieces(*job);
}

void FetchServer::SendPieces(Job& job) {
  for (auto at = job.next++; at < job.pieces.size() && !job.stopped; at = job.next++) {
    if (!SendPiece(job, job.pieces[at])) job.stopped = true;
  }
}

bool FetchServer::SendPiece(Job& job, const Piece& piece) {
  std::vector<std::byte> data(static_cast<std::size_t>(piece.length));
  File file(job.path, GENERIC_READ);
  if (file.Error() != 0 || !file.ReadAt(piece.offset, data)) {
    Send(job.fetch, nullptr, {job.fetch.offset, job.fetch.length}, CORVWinCFTransferUnsuccessful);
    return false;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(job.rules.delayMs));
  if (job.stopped) return false;
  if (++transferCount == job.rules.crashAtTransfer) TerminateProcess(GetCurrentProcess(), 9);
  if (Send(job.fetch, data.data(), piece, CORVWinCFTransferSucceeded) < 0) return false;
  if (job.rules.reportProgress) {
    const auto done = piece.offset + piece.length - job.fetch.offset;
    CORVWinCFSyncRootReportTransferProgress(root_, job.fetch.transferKey, job.fetch.length + 1,
                                            done);
  }
  return true;
}

std::int32_t FetchServer::Send(const Fetch& fetch, const void* data, const Piece& piece,
                               std::uint32_t status) {
  const auto result = CORVWinCFSyncRootTransferData(root_, fetch.transferKey, 0, data, piece.offset,
                                                    piece.length, status);
  EmitEvent("transfer", Fields()
                            .Set("identity", fetch.identity)
                            .Set("key", fetch.transferKey)
                            .Set("offset", piece.offset)
                            .Set("length", piece.length)
                            .Set("status", status)
                            .Set("result", result));
  return result;
}

void FetchServer::Cancel(std::int64_t transferKey, std::int64_t offset, std::int64_t length) {
  const std::lock_guard lock(mutex_);
  for (const auto& known : jobs_) {
    const auto job = known.lock();
    if (!job || !job->rules.heedCancel || job->fetch.transferKey != transferKey) continue;
    const bool overlaps =
        job->fetch.offset < offset + length && offset < job->fetch.offset + job->fetch.length;
    if (overlaps) job->stopped = true;
  }
}

}  // namespace e2e
