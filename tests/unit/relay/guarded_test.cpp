#include "base/guarded.h"

#include "failing_new.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace relay {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

struct Heavy : std::exception {
    const char* what() const noexcept override { return "a reason longer than a short string"; }
};

TEST(Guarded, StepThatReturnsIsNotLogged) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(guarded("a step failed", [] {}));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
}

TEST(Guarded, StepThatThrowsIsLogged) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(guarded("a step failed", [] { throw std::runtime_error("no room"); }));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr(" error a step failed: no room\n"));
}

TEST(Guarded, FailureIsBorneWhenTheLogHasNoMemoryEither) {
    bool is_done = false;
    for (int nth = 1; !is_done; ++nth) {
        testing::internal::CaptureStderr();
        {
            const FailingNew failure(nth);
            EXPECT_FALSE(guarded("a step failed", [] { throw Heavy(); }));
            is_done = !failure.happened();
        }
        const std::string logged = testing::internal::GetCapturedStderr();
        EXPECT_EQ(logged.empty(), !is_done) << logged;
    }
}

TEST(Guarded, LoopIsRunOnAfterEachFailure) {
    int runs = 0;
    testing::internal::CaptureStderr();
    run_through([&runs] {
        if (++runs < 3)
            throw std::runtime_error("no room");
    });
    EXPECT_EQ(runs, 3);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr(" error an event failed: no room\n"));
}

} // namespace
} // namespace relay
