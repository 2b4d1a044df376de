// Many generated message types (plan_filler.proto, which tests/CMakeLists.txt
// writes): more than the library keeps plans of, for the cases of the types
// beyond them. Each type FillerN has an int32 key field id (1), a string
// name (2) and a FillerN next, numbered 1000 to 1049.
#ifndef CORVIDA_TESTS_SUPPORT_PLAN_FILLER_H_
#define CORVIDA_TESTS_SUPPORT_PLAN_FILLER_H_

#include <functional>
#include <vector>

#include <google/protobuf/message.h>

namespace corvida_test {

// The prototypes of the generated classes Filler1, Filler2, ..., in order.
const std::vector<const google::protobuf::Message*>& PlanFillerTypes();

// Runs body in a child process and fails unless body records no failure
// there (the child's failures are printed with the parent's): the plans the
// library keeps for the filler types last as long as the process, and must
// not change what the other tests of the same process run.
void InChildProcess(const std::function<void()>& body);

}  // namespace corvida_test

#endif  // CORVIDA_TESTS_SUPPORT_PLAN_FILLER_H_
