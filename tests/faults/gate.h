#ifndef NIMBRA_TESTS_FAULTS_GATE_H_
#define NIMBRA_TESTS_FAULTS_GATE_H_

#include <windows.h>

#include <unknwn.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/faults/functions.h"

namespace nimbra_test {

// Which call is to fail, and how. All allocations count as one function, "allocation".
struct Fault {
  std::string function;
  int n = 0;
  // Whether the calls after the n-th fail too.
  bool persistent = false;
  FailureCode code;
  // The last call that fails, when not all later ones do.
  int last = INT_MAX;
};

// What the library did between Begin and End.
struct Observation {
  // Calls by function, those that were failed included.
  std::map<std::string, int> calls;
  // Functions in the order of their first call.
  std::vector<std::string> order;
  // The DLL of each function that was looked up in one, in lower case.
  std::map<std::string, std::string> libraries;
  // The lines of the debugger output, in UTF-8.
  std::vector<std::string> lines;
  bool hasFailed = false;
};

// What the library holds: a name for each kind of resource and how many of it.
using Holdings = std::map<std::string, std::int64_t>;

// Stands between a loaded image and every platform function that it calls: the imports of its
// table, the functions that it asks GetProcAddress for (the recording platform stands behind
// cldapi's), and the methods of the COM objects that it is given. Counts calls, fails chosen ones
// and knows what of memory and other resources is held. One object at a time.
class CallGates {
 public:
  explicit CallGates(HMODULE image);
  ~CallGates();
  CallGates(const CallGates&) = delete;
  CallGates& operator=(const CallGates&) = delete;

  // Starts to observe; with a fault, that is injected.
  void Begin();
  void Begin(const Fault& fault);
  Observation End();

  Holdings Held() const;
  // Functions without a row in the table: what the library has come to call and nobody has thought
  // about yet.
  std::vector<std::string> Unknown() const;
  // The image's imports.
  std::vector<std::string> Imports() const { return imports_; }

  // Watches the methods of an object of the test's own that is handed to the library.
  void Watch(IUnknown* object, const char* interfaceName);
  // Something that the library handed out is the client's, which has given it back.
  void GiveBack(const char* resource);
  // What the library registered as its class object last, or null. Owned by the library.
  IUnknown* ClassObject() const { return classObject_; }

 private:
  struct Gate;
  struct Call;

  static std::uintptr_t Enter(Gate* gate, const std::uintptr_t* frame);

  Gate& AddGate(const FunctionRow& row, void* original);
  void* CloudFunction(const char* name);
  void* SystemFunction(HMODULE module, const char* name);
  void WatchTable(void** table, const char* interfaceName);
  bool Count(Call& call);
  bool Answer(Call& call);
  bool AnswerLoading(Call& call);
  void Account(const Call& call);
  void WatchOutput(const Call& call);
  void Hold(const char* resource, std::int64_t change);

  HMODULE image_;
  std::uintptr_t imageEnd_;
  std::vector<std::string> imports_;
  std::vector<void**> slots_;
  // The system's DLLs that the image has loaded itself.
  std::map<HMODULE, std::string> libraries_;

  mutable std::mutex mutex_;
  bool observing_ = false;
  Fault fault_;
  Observation observation_;
  Holdings held_;
  std::unordered_map<std::uintptr_t, std::size_t> blocks_;
  std::set<std::string> unknown_;
  IUnknown* classObject_ = nullptr;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_FAULTS_GATE_H_
