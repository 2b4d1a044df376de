// Expect(ok, what) for the guide's examples: a failed expectation is printed,
// and main() returns ExitStatus(), non-zero after any failure.
#ifndef CORVIDA_DOCS_EXAMPLES_EXPECT_H_
#define CORVIDA_DOCS_EXAMPLES_EXPECT_H_

#include <cstdio>

inline int& ExpectFailures() {
    static int failures = 0;
    return failures;
}

inline void Expect(bool ok, const char* what) {
    if (!ok) {
        std::printf("FAIL %s\n", what);
        ++ExpectFailures();
    }
}

inline int ExitStatus() {
    std::printf("%s\n", ExpectFailures() == 0 ? "all expectations met" : "some expectations FAILED");
    return ExpectFailures() == 0 ? 0 : 1;
}

#endif  // CORVIDA_DOCS_EXAMPLES_EXPECT_H_
