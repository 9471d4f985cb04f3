#ifndef NIMBRA_SIMULATOR_FILTER_API_SERVER_H_
#define NIMBRA_SIMULATOR_FILTER_API_SERVER_H_

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "api-dispatcher.h"
#include "unique-fd.h"

namespace cloud_filter {

// Serves the API on a loopback port to those who know the token, one thread for each connection.
class ApiServer {
 public:
  ApiServer(ApiDispatcher& dispatcher, std::string token);
  ~ApiServer();
  ApiServer(const ApiServer&) = delete;
  ApiServer& operator=(const ApiServer&) = delete;

  // 0 or an errno.
  int Start();
  // Ends all connections.
  void Stop();
  [[nodiscard]] std::uint16_t Port() const { return port_; }

  class Session;

 private:
  void Accept();
  void Sweep();

  ApiDispatcher& dispatcher_;
  const std::string token_;
  UniqueFd listener_;
  UniqueFd stop_;
  std::uint16_t port_ = 0;
  std::thread accepting_;
  std::list<std::unique_ptr<Session>> sessions_;  // of the accepting thread
};

// 256 random bits in hexadecimal.
std::string MakeToken();

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_API_SERVER_H_
