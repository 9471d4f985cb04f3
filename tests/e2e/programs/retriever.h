#ifndef NIMBRA_TESTS_E2E_RETRIEVER_H_
#define NIMBRA_TESTS_E2E_RETRIEVER_H_

#include <nimbra/nimbra.h>

#include <string>

#include "command-loop.h"

namespace e2e {

// What finds the images for thumbnails, by rules that the test sets; each call is an event
// "retrieve". A rule is for one item, or without `item` for all that have none:
//   image=PATH   names it; an empty one is named, too
//   found=0      says that there is none
//   delay=MS     waits before that
//   end=HOW      does not return: "throw", "fault" (a bad access), "exit" or "terminate"
void SetRule(const Fields& rule);

// There are two, "first" and "second", which differ in the event only. Null for "none".
CORVWinCFThumbRetriever RetrieverNamed(const std::string& name);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_RETRIEVER_H_
