// A DLL that does nothing, with what of the compiler's runtime the library has too:
// exceptions, threads and containers.

#include <windows.h>

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

// Nobody calls it: that it is exported keeps the runtime linked in.
extern "C" __declspec(dllexport) int NimbraBenchNothing(int number) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::thread([] {}).join();
  try {
    const std::map<std::string, std::shared_ptr<int>> numbers{
        {std::to_string(number), std::make_shared<int>(number)}};
    return *numbers.at(std::to_string(number));
  } catch (const std::exception&) {
    return -1;
  }
}
