// A client that serves thumbnails, at a test's word, and nothing else.

#include <nimbra/nimbra.h>

#include "command-loop.h"
#include "log-capture.h"
#include "retriever.h"

int main() {
  using e2e::Fields;
  e2e::CaptureDebugOutput();
  e2e::CommandLoop loop;
  loop.Add("rule", [](const Fields& command) {
    e2e::SetRule(command);
    return Fields();
  });
  loop.Add("install", [](const Fields& command) {
    CORVWinCFSetThumbRetrieverCb(e2e::RetrieverNamed(command.Text("retriever")));
    return Fields();
  });
  loop.Add("startServices", [](const Fields&) {
    CORVWinCFStartShellServices();
    return Fields();
  });
  loop.Run();
}
