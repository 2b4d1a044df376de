#include "support/plan_filler.h"

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "plan_filler.pb.h"

namespace corvida_test {

const std::vector<const google::protobuf::Message*>& PlanFillerTypes() {
    static const std::vector<const google::protobuf::Message*> types = [] {
        std::vector<const google::protobuf::Message*> prototypes;
        const google::protobuf::FileDescriptor* file = corvida::filler::Filler1::descriptor()->file();
        for (int i = 0; i < file->message_type_count(); ++i) {
            prototypes.push_back(
                google::protobuf::MessageFactory::generated_factory()->GetPrototype(file->message_type(i)));
        }
        return prototypes;
    }();
    return types;
}

namespace {

// Runs body, and exits with 0 when it recorded no failure; otherwise prints
// the failures to stderr, which the parent shows, and exits with 1.
[[noreturn]] void RunAndExit(const std::function<void()>& body) {
    ::testing::TestPartResultArray results;
    {
        ::testing::ScopedFakeTestPartResultReporter reporter(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        body();
    }
    int failures = 0;
    for (int i = 0; i < results.size(); ++i) {
        const ::testing::TestPartResult& result = results.GetTestPartResult(i);
        if (!result.failed()) continue;
        ++failures;
        std::fprintf(stderr, "%s:%d: Failure\n%s\n", result.file_name() != nullptr ? result.file_name() : "?",
                     result.line_number(), result.message());
    }
    std::fflush(stderr);
    std::exit(failures == 0 ? 0 : 1);
}

}  // namespace

void InChildProcess(const std::function<void()>& body) {
    EXPECT_EXIT(RunAndExit(body), ::testing::ExitedWithCode(0), "");
}

}  // namespace corvida_test
